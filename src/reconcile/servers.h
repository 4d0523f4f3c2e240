/// Comparison of the VRFs' units and servers with the configuration.
#ifndef RECONCILE_SERVERS_H
#define RECONCILE_SERVERS_H

#include "reconcile/findings.h"

/// Carries out the deletions of items that could not be carried out before. May throw std::bad_alloc.
void compare_deletions(comparison& run);

/// Writes unit files that are missing or differ. Restarts configured servers that are not running, that run in another
/// namespace than their VRF's or with an older file than the current one. Stops servers that nothing requests. Returns 0,
/// or -1 if the servers' states cannot be read. May throw std::bad_alloc.
int compare_servers(comparison& run);

#endif
