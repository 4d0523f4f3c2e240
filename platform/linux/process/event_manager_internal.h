/// The event manager's interface for the other services of the Linux platform.
#ifndef LINUX_PROCESS_EVENT_MANAGER_INTERNAL_H
#define LINUX_PROCESS_EVENT_MANAGER_INTERNAL_H

#include <systemd/sd-event.h>

#include <cstddef>
#include <cstdint>

#include "platform/event_manager.h"

/// Priorities of event sources; sd-event serves the lowest number first.
enum event_priority {
    EVENT_PRIORITY_UNBLOCK = -120,  ///< a VRF is opened again before anything else is handled
    EVENT_PRIORITY_WATCH = -110,    ///< watches are read before what they found is told, so that it can be merged
    EVENT_PRIORITY_NORMAL = 0
};

/// The sd-event loop behind a manager. Owned by the manager; callers that keep it take a reference.
sd_event* event_manager_sd_event(struct event_manager* manager);

/// The manager that was created last, or null. The process has one.
struct event_manager* event_manager_current();

/// Frees a manager. The agent keeps its own for the life of the process; tests do not. Null is accepted.
void event_manager_free(struct event_manager* manager);

/// Runs the handler of message `code` with `size` bytes of `body` at once, so it is for callers that the loop itself has
/// called. The reply is copied to `reply` (`capacity` bytes) and its full length stored in `*reply_size`. Returns ENOENT
/// when no handler is attached, EPROTO when the handler did not reply.
platform_status event_manager_send_message(struct event_manager* manager, uint32_t code, const void* body, size_t size,
                                           void* reply, size_t capacity, size_t* reply_size);

#endif
