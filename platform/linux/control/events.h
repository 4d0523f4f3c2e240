/// Events for the watchers of the control socket.
#ifndef LINUX_CONTROL_EVENTS_H
#define LINUX_CONTROL_EVENTS_H

#include <cstddef>
#include <string_view>

/// Passes an event, one JSON document with the whole state of its subject, to all watchers, and returns their number.
/// Does not wait for any of them. May throw std::bad_alloc.
size_t control_publish(std::string_view subject, std::string_view document);

#endif
