/// Retries rules of access lists that could not be put in force.
#ifndef ACL_FAILED_LISTS_H
#define ACL_FAILED_LISTS_H

#include <cstdint>

#include "config_files/vrf_node.h"
#include "platform/enforcement.h"

/// Finds the lists of all VRFs whose rules are not as configured: not loaded, loaded in a previous version, or not removed.
/// VRFs without a namespace are skipped, because their lists wait for it. Reports each list to `sink`, under the subject
/// returned by acl_subject(). If `repair` is not 0, each is tried again, and reported as not in force if that fails.
/// Returns how many remain.
///
/// Only failures that the agent has noticed are found; reconcile/access_rules.h compares the rules in the kernel.
int acl_reload_failed(uint32_t repair, enforcement_difference_sink sink, void* sink_context);

/// Retries all lists of one VRF.
void acl_reload_failed_of(vrf_node* node);

/// Makes the table of a type anew, with the rules of its list or without any. Reports it as not in force if that fails.
void acl_load_again(vrf_node* node, uint32_t type);

#endif
