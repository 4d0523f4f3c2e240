/// Events for the watchers of the control socket.
#ifndef LINUX_CONTROL_EVENTS_H
#define LINUX_CONTROL_EVENTS_H

#include <cstddef>
#include <cstdint>
#include <string_view>

/// What a watcher wants to know.
enum class control_topic : uint8_t {
    none,       ///< not a watcher
    telemetry,  ///< states in force; an event has the whole state of its subject
    sessions,   ///< logins, logouts and failed logins
};

/// Passes an event, one JSON document, to all watchers of the topic, and returns their number. Does not wait for any of
/// them. May throw std::bad_alloc.
size_t control_publish(std::string_view subject, std::string_view document,
                       control_topic topic = control_topic::telemetry);

#endif
