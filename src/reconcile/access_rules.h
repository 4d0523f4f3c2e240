/// The rules of access lists in the kernel against the lists.
#ifndef RECONCILE_ACCESS_RULES_H
#define RECONCILE_ACCESS_RULES_H

#include "reconcile/findings.h"

/// Tables of the agent whose rules, or chains, are not those of the list that the VRF names are made again while the VRF is
/// blocked; so are those of VRFs and services without a list that filter anything. Passes over VRFs without a namespace,
/// and over lists whose failure the agent knows (acl/failed_lists.h). At a start, lists that this process has just loaded
/// are not compared. May throw std::bad_alloc.
void compare_access_rules(comparison& run);

#endif
