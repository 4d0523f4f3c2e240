/// The rules that an access list would become, so that the platform can check them before it stores the list.
#ifndef ACL_LIST_VERIFIER_H
#define ACL_LIST_VERIFIER_H

#include "platform/acl_verifier.h"

/// The contract is acl_verifier's; `context` is not used. Nothing is written to a file or loaded.
platform_status make_list_rules(uint32_t family, uint32_t service, const acl_list_entry* entries, size_t count,
                                acl_entry_rule* entry_rules, acl_list_rules* rules, void* context);

/// Registers it with the platform. A failure is logged: lists are then stored without being checked.
void register_acl_verifier();

#endif
