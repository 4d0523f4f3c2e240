/// The queue of events for one watcher of the control socket, in bounded memory.
///
/// An event contains the whole state of its subject, so the latest event of a subject is all that a slow watcher needs.
/// A watcher that reads in time gets every event. When its queue is full, it gets the latest event of each subject and
/// the number of events that were dropped.
#ifndef LINUX_CONTROL_EVENT_QUEUE_H
#define LINUX_CONTROL_EVENT_QUEUE_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

struct control_event {
    std::string subject;  ///< what the event is about
    std::string text;     ///< one JSON document
};

struct control_event_queue {
    /// Shared by all watchers, so that an event that nobody has read yet is in memory only once.
    std::deque<std::shared_ptr<const control_event>> events;
    size_t size = 0;         ///< approximate memory in bytes
    uint64_t coalesced = 0;  ///< events dropped since the last frame
};

/// Approximate memory of an event, in bytes.
size_t control_event_size(const control_event& event);

/// Adds an event. When the queue exceeds `size_max` bytes, all events but the latest of each subject are dropped; false
/// when it still exceeds the limit. Throws std::bad_alloc.
bool control_event_add(control_event_queue& queue, const std::shared_ptr<const control_event>& event, size_t size_max);

/// Removes as many events as fit in a frame of about `frame_size` bytes, at least one, and returns an object with "data",
/// the events in order, and "coalesced" unless it is 0. The queue must not be empty. Throws std::bad_alloc.
std::string control_event_take(control_event_queue& queue, size_t frame_size);

#endif
