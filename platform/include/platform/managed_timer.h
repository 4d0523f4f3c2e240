/// Managed timers: a timer handler attached to the event manager, and leaf timers that it serves.
#ifndef PLATFORM_MANAGED_TIMER_H
#define PLATFORM_MANAGED_TIMER_H

#include <stdint.h>

#include "platform/event_manager.h"
#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

struct managed_timer_leaf;

/// A leaf has expired. It is already stopped, and the handler may restart or free it.
typedef void (*managed_timer_handler)(struct managed_timer_leaf* leaf, void* context);

/// Attaches a timer handler to the loop. On success `*handle` identifies it (0 or above).
platform_status managed_timer_attach(struct event_manager* manager, managed_timer_handler handler, void* context,
                                     int32_t* handle);

/// Detaches a timer handler; its leaves no longer expire. An unknown handle (a detached one is -1) gives EINVAL.
platform_status managed_timer_detach(int32_t handle);

/// Creates a stopped leaf under a timer handler. The caller frees it.
platform_status managed_timer_leaf_create(int32_t handle, struct managed_timer_leaf** leaf);

/// Makes the leaf expire once, `seconds` from now; a running leaf is restarted.
platform_status managed_timer_leaf_start(struct managed_timer_leaf* leaf, uint32_t seconds);

/// Stops the leaf; no effect on a stopped one.
void managed_timer_leaf_stop(struct managed_timer_leaf* leaf);

/// Stops and frees the leaf. Null is accepted.
void managed_timer_leaf_free(struct managed_timer_leaf* leaf);

#ifdef __cplusplus
}
#endif

#endif
