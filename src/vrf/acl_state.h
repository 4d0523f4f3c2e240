/// Whether the rules of a VRF's access lists are as configured, and the consequences if they are not.
///
/// A service whose list could not be attached is blocked in the list's address family, so that nobody gets in unfiltered,
/// until the list is loaded or no longer named. A list that was loaded before keeps its previous rules if its change
/// fails, and nothing is blocked. Both are reported as not in force. All functions leave errno alone.
#ifndef VRF_ACL_STATE_H
#define VRF_ACL_STATE_H

#include <cstddef>
#include <cstdint>

#include "config_files/vrf_node.h"

inline constexpr size_t acl_subject_size = 64;

/// The name under which the rules of a type are reported: "rules VRF ssh ipv4".
void acl_subject(const char* vrf_name, uint32_t type, char (&subject)[acl_subject_size]);

/// The name that the node has for its list of a type (0 to 3); empty if there is none.
const char* acl_name_of(const vrf_node& node, uint32_t type);

/// Whether the node names a list of the type that is not loaded.
bool acl_is_missing(const vrf_node& node, uint32_t type);

/// Whether the rules of the type, or of any type, are not as configured.
bool acl_is_failed(const vrf_node& node, uint32_t type);
bool any_acl_failed(const vrf_node& node);

/// The rules of a type are as configured; without a configured list this means that there are none. The service is
/// unblocked if it was blocked because of them.
void acl_rules_in_force(vrf_node* node, uint32_t type);

/// No list of the type is named any longer; failures already reported remain reported. The service is unblocked as
/// above.
void acl_detached(vrf_node* node, uint32_t type);

/// The rules of a type are not as configured. They will be retried; blocks nothing.
void acl_rules_failed(vrf_node* node, uint32_t type, const char* reason);

/// Blocks the service that a list of the type protects, in the list's family, unless the list is loaded. Called when a list
/// could not be attached; not for a later attempt, because an operator may have lifted the block meanwhile.
void block_without_acl(vrf_node* node, uint32_t type);

/// Must be called after the lists of a VRF were attached: blocks and reports missing ones, whether or not they were tried.
/// Without a namespace the lists wait for it.
void settle_acls(vrf_node* node);

/// Clears the state of all lists and lifts their blocks, after the namespace or the server has gone.
void forget_acl_rules(vrf_node* node);

#endif
