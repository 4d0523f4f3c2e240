/// The access lists whose rules are loaded in the kernel.
#ifndef LINUX_STATUS_LOADED_RULES_H
#define LINUX_STATUS_LOADED_RULES_H

#include <cstdint>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "platform/status.h"

/// The rules of one service of a VRF in one address family.
struct rule_place {
    std::string vrf_name;
    uint32_t service;  ///< MPP_SERVICE_SSH or MPP_SERVICE_NETCONF
    uint32_t family;   ///< ACL_FAMILY_IPV4 or ACL_FAMILY_IPV6

    bool operator<(const rule_place& other) const {
        return std::tie(vrf_name, service, family) < std::tie(other.vrf_name, other.service, other.family);
    }
};

/// Determines for which of the places the kernel has any rules. A child process enters the namespaces, one after the other,
/// for at most three seconds altogether (ETIMEDOUT). A VRF without a namespace has no rules.
platform_status loaded_rules_query(const std::vector<rule_place>& places, std::set<rule_place>& loaded);

#endif
