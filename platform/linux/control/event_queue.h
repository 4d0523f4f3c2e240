/// Events on their way to one watcher of the control socket, in bounded memory.
///
/// An event tells the whole state of its subject, so that a later one of the same subject says all that a watcher who
/// comes late needs. Who reads in time gets every event; whose queue is full gets the latest of each subject and is told
/// how many that left out.
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
    /// Shared by all watchers, so that an event that nobody has read yet takes its memory once.
    std::deque<std::shared_ptr<const control_event>> events;
    size_t size = 0;         ///< bytes of memory that they take, about
    uint64_t coalesced = 0;  ///< events that were left out since the last frame
};

/// Bytes of memory that an event takes, about.
size_t control_event_size(const control_event& event);

/// Adds an event. When more than `size_max` bytes are in the queue, all events but the latest of each subject are left
/// out; false when that is still too much. Throws std::bad_alloc.
bool control_event_add(control_event_queue& queue, const std::shared_ptr<const control_event>& event, size_t size_max);

/// Takes out as many events as fit a frame of about `frame_size` bytes, at least one, and gives them as an object with
/// "data", the events in their order, and "coalesced" unless it is 0. The queue must not be empty. Throws std::bad_alloc.
std::string control_event_take(control_event_queue& queue, size_t frame_size);

#endif
