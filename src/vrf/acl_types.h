/// Kinds of access lists: which service they protect, in which address family.
#ifndef VRF_ACL_TYPES_H
#define VRF_ACL_TYPES_H

#include <cstdint>

enum acl_type : uint32_t {
    acl_ssh_v4 = 0,
    acl_netconf_v4 = 1,
    acl_ssh_v6 = 2,
    acl_netconf_v6 = 3,
    acl_all = 4,  ///< all four tables; only for creating and flushing them
    acl_type_count
};

inline constexpr uint32_t ssh_port = 22;
inline constexpr uint32_t netconf_port = 830;

#endif
