/// How access lists of the two address families differ.
#ifndef ACL_ACL_FAMILY_H
#define ACL_ACL_FAMILY_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "config_files/vrf_node.h"
#include "platform/acl_service.h"

struct acl_family {
    uint32_t code;            ///< ACL_FAMILY_
    uint32_t ssh_type;        ///< acl_type of the SSH service
    uint32_t netconf_type;    ///< acl_type of the NETCONF service
    const char* tree;         ///< operational tree of the family
    const char* bind_format;  ///< format of the path to bind to, given the tree
    char (vrf_node::*ssh_name)[acl_name_size];
    char (vrf_node::*netconf_name)[acl_name_size];
    acl_handle* vrf_node::*head;  ///< the subscription

    /// Converts one encoded entry into the rule file. Returns 0 or the codec's error.
    platform_status (*convert)(const void* record, size_t size, FILE* rule_file, uint32_t type);

    const char* register_routine;  ///< for its debug lines
    const char* get_list_failed;
    const char* registration_failed;
    const char* without_head;  ///< format for the function's name
};

/// The name that a node has for a type of the family; null if the type does not belong to the family.
inline const char* acl_name_of(const acl_family& family, const vrf_node& node, uint32_t type) {
    if (type == family.ssh_type) {
        return node.*family.ssh_name;
    }
    return type == family.netconf_type ? node.*family.netconf_name : nullptr;
}

extern const acl_family ipv4_acl_family;
extern const acl_family ipv6_acl_family;

#endif
