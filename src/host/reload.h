/// Reload of the chassis: stops the servers, ends the sessions and acknowledges to the shelf manager.
#ifndef HOST_RELOAD_H
#define HOST_RELOAD_H

#include <cstdint>

#include "platform/shelf_manager.h"

/// Finds the process ids of the session wrappers. Returns 0, their number and an array of them, which the caller frees;
/// or the errno value, with a count of 0 and no array. Lines that are not process ids, and processes that must not be
/// signalled (this process, its group, process 1), are skipped.
int find_exec_sessions(uint32_t* count, int32_t** ids);

/// Handles the notice of a reload. Blocks for up to 5 seconds until the sessions have ended, and acknowledges only
/// then. If the reload does not follow within 120 seconds, the servers are started again.
void reload_notice_handler(shelf_manager* shelf, void* context);

#endif
