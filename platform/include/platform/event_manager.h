/// Event manager: the process's one event loop, its descriptors, messages and timers.
///
/// All handlers registered here are called from event_manager_dispatch on the loop's thread, one at a time, and run to
/// completion. When the platform has the process end, it does so between two events, from within event_manager_block or
/// event_manager_dispatch, with exit status 0.
#ifndef PLATFORM_EVENT_MANAGER_H
#define PLATFORM_EVENT_MANAGER_H

#include <stddef.h>
#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

struct event_manager;
struct event_message;

/// One event that event_manager_block has waited for; opaque, valid until it is dispatched.
struct event_manager_event {
    uint64_t opaque[2];
};

enum { EVENT_MANAGER_READ = 1, EVENT_MANAGER_WRITE = 2 };

/// Creates the loop. `device_path` identifies the process to the platform. The handle is valid for the life of the
/// process. Returns 0, or -1 with errno set and `*manager` unchanged.
int event_manager_create(const char* device_path, struct event_manager** manager);

/// `fd` is readable (EVENT_MANAGER_READ) and/or writable (EVENT_MANAGER_WRITE) as `conditions` says.
typedef void (*event_fd_handler)(int fd, uint32_t conditions, void* context);

/// Calls `handler` whenever `fd` (which stays the caller's) meets one of `conditions`.
platform_status event_manager_attach_fd(struct event_manager* manager, int fd, uint32_t conditions,
                                        event_fd_handler handler, void* context);

/// A message from the platform to this process. The handler must reply exactly once before it returns.
typedef void (*event_message_handler)(struct event_message* message, void* context);

/// Calls `handler` for every message with this code. Each code has at most one handler.
platform_status event_manager_attach_message(struct event_manager* manager, uint32_t code,
                                             event_message_handler handler, void* context);

/// The message's body; `*size` receives its length in bytes. Owned by the message.
const void* event_message_body(const struct event_message* message, size_t* size);

/// Replies to the message with `size` bytes, which are copied.
platform_status event_message_reply(struct event_message* message, const void* reply, size_t size);

/// Blocks until there is an event to dispatch. Returns 0 and fills `event`, or -1 with errno set.
int event_manager_block(struct event_manager* manager, struct event_manager_event* event);

/// Calls the handlers of `event`.
void event_manager_dispatch(struct event_manager* manager, const struct event_manager_event* event);

/// The underlying loop, for platform services that attach to it directly (the shelf manager). Not owned by the caller.
void* event_manager_loop_handle(struct event_manager* manager);

#ifdef __cplusplus
}
#endif

#endif
