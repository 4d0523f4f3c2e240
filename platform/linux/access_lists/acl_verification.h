/// Verification of access lists: the rules that the agent would make of them, checked by nft.
#ifndef LINUX_ACCESS_LISTS_ACL_VERIFICATION_H
#define LINUX_ACCESS_LISTS_ACL_VERIFICATION_H

#include <cstdint>
#include <string>
#include <vector>

#include "linux/access_lists/acl_service_internal.h"
#include "platform/acl_verifier.h"

/// The rules of a list for one service.
struct acl_service_rules {
    const char* service;  ///< name of the service
    uint32_t compared_port;
    std::string text;
    std::vector<acl_entry_rule> entries;  ///< one for each entry of the list, in their order
};

/// The rules that the agent would make of a list: for SSH, then for NETCONF. Empty if the agent has registered no
/// verifier. Returns 0 or the verifier's error. May throw std::bad_alloc.
platform_status acl_make_rules(uint32_t family, const std::vector<acl_stored_entry>& entries,
                               std::vector<acl_service_rules>& rules);

/// Why a list must not be stored; both members are empty for a list that can be loaded.
struct acl_objection {
    std::vector<std::string> refusals;  ///< nft's errors, by sequence number
    std::string failure;                ///< why it could not be checked
};

/// Has nft check what the agent would load for the list, for both services. Takes at most 20 seconds. Without a verifier
/// every list is accepted. May throw std::bad_alloc.
acl_objection acl_check_list(uint32_t family, const std::vector<acl_stored_entry>& entries);

#endif
