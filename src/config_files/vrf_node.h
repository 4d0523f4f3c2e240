/// A VRF in which an SSH or NETCONF server is configured.
#ifndef CONFIG_FILES_VRF_NODE_H
#define CONFIG_FILES_VRF_NODE_H

#include <cstddef>
#include <cstdint>

#include "config_files/line_entry.h"

struct acl_handle;

inline constexpr size_t vrf_name_size = 33;  ///< at most 32 characters and NUL
inline constexpr size_t acl_name_size = 65;  ///< at most 64 characters and NUL

/// Lines that only this VRF's file has.
enum vrf_line : size_t { VRF_START_MARKER, VRF_NETCONF_SUBSYSTEM, VRF_END_MARKER, vrf_line_count };

/// The configuration items that request a server in a VRF.
enum item_kind : uint32_t { ITEM_SSH = 1, ITEM_NETCONF = 2, ITEM_PROTOCOL = 4 };

struct vrf_node {
    char name[vrf_name_size];  ///< without the "vrf-" prefix; "default" for the default VRF
    int32_t reference_count;   ///< number of configuration items that request a server in this VRF
    line_entry lines[vrf_line_count];
    uint32_t nft_initialised;        ///< 1 once the packet filter's state exists for this VRF
    char ssh_v4_acl[acl_name_size];  ///< empty if there is none, like the three below
    char ssh_v6_acl[acl_name_size];
    char netconf_v4_acl[acl_name_size];
    char netconf_v6_acl[acl_name_size];
    acl_handle* v4_aclhead;  ///< subscriptions; owned by acl/
    acl_handle* v6_aclhead;
    uint32_t attached_acls;      ///< one bit for each acl_type whose list is loaded
    uint32_t failed_acls;        ///< one bit for each acl_type whose rules are not as configured
    uint32_t blocked_acls;       ///< one bit for each acl_type whose service is blocked because its list is not loaded
    uint32_t start_failed;       ///< 1 while the VRF is left blocked because its server could not be started
    uint32_t server_started;     ///< 1 after a configuration or namespace event has (re)started the unit
    uint32_t restart_due;        ///< 1 from a change of the VRF's file until its server is restarted
    uint32_t restart_put_off;    ///< 1 while the server waits for the end of a commit to be restarted
    uint32_t start_put_off;      ///< 1 if that restart sets server_started
    uint32_t blocked_until_end;  ///< 1 while the VRF is blocked until the end of a commit
    uint32_t deletions_due;      ///< one bit for each item_kind that was deleted but still counts as a reference
    vrf_node* next;
};

/// The node of a VRF (name without prefix), or null.
vrf_node* find_vrf_node(const char* vrf_name);

#endif
