/// The VRFs' units and servers against the configuration.
#ifndef RECONCILE_SERVERS_H
#define RECONCILE_SERVERS_H

#include "reconcile/findings.h"

/// Unit files that are missing or differ are written; servers that do not run although they are configured, that run in
/// another namespace than their VRF's or with an older file than the present one are restarted; those that nothing
/// requests are stopped. Returns 0, or -1 if the servers' states cannot be read. May throw std::bad_alloc.
int compare_servers(comparison& run);

#endif
