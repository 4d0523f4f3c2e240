/// A reload of the chassis: the servers stop, the sessions end, the shelf manager gets its acknowledgement.
#ifndef HOST_RELOAD_H
#define HOST_RELOAD_H

#include <cstdint>

#include "platform/shelf_manager.h"

/// Finds the process ids of the wrappers that sessions run in. Returns 0, the count and an array of them, which the
/// caller frees; or the system's error number with a count of 0 and no array. What is no process id, and what must not be
/// signalled (this process, its group, process 1), is left out.
int find_exec_sessions(uint32_t* count, int32_t** ids);

/// The chassis is about to reload. Blocks for at most 5 seconds, until the sessions have ended; only then acknowledges. If
/// no reload comes within 120 seconds, the servers are started again.
void reload_notice_handler(shelf_manager* shelf, void* context);

#endif
