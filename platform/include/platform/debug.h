/// Debug flags, which operators turn on and off while the process runs, and debug prints.
#ifndef PLATFORM_DEBUG_H
#define PLATFORM_DEBUG_H

#include <stdint.h>

#include "platform/event_manager.h"
#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    DEBUG_FLAG_TYPE = 7,  ///< a flag that is on or off
    DEBUG_FLAG_LEVEL = 5,
    DEBUG_ACTION_ON = 1,
    DEBUG_ACTION_OFF = 2
};

/// Registers a flag by its id (1 to 31) under `path`.
platform_status debug_flag_register(const char* path, uint32_t id, const char* name, uint32_t type, uint32_t level);

/// `action` is DEBUG_ACTION_ON or DEBUG_ACTION_OFF; the flag is already in that state.
typedef void (*debug_event_handler)(uint32_t action, uint32_t id, void* context);

/// Calls `handler` whenever a flag under `path` is turned on or off.
platform_status debug_event_register(struct event_manager* manager, const char* path, debug_event_handler handler,
                                     void* context);

/// 1 while the flag is on, else 0. Cheap; called before every debug print.
int debug_flag_is_on(uint32_t id);

/// Writes one debug line. Preserves errno.
void debug_write(uint32_t id, const char* line);

#ifdef __cplusplus
}
#endif

#endif
