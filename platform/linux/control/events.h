/// Events to those who watch through the control socket.
#ifndef LINUX_CONTROL_EVENTS_H
#define LINUX_CONTROL_EVENTS_H

#include <cstddef>
#include <string_view>

/// Passes an event, one JSON document that tells the whole state of its subject, to all watchers, and says how many there
/// are. Waits for none of them. May throw std::bad_alloc.
size_t control_publish(std::string_view subject, std::string_view document);

#endif
