/// Calls from a lower module of the agent into a higher one.
///
/// A module includes only modules below it. What it needs from above it calls through this table of functions, which
/// start-up fills before the first event. A null function means that this agent lacks the facility.
#ifndef CORE_UPCALLS_H
#define CORE_UPCALLS_H

#include <cstdint>

struct vrf_node;

struct upcalls {
    // vrf/, for the writers in config_files/
    int (*ssh_process_restart)(uint32_t start, const char* vrf_name);  ///< 1 restarts, 0 stops; 0 or -1
    void (*delete_vrf_node)(vrf_node* node);

    // acl/, for the VRF and namespace handlers. `type` is an acl_type: 0 SSH IPv4, 1 NETCONF IPv4, 2 SSH IPv6, 3 NETCONF IPv6.
    int (*create_nft_table)(const char* vrf_name);                    ///< 0 or -1
    int (*ssh_flush_nft_table)(const char* vrf_name, uint32_t type);  ///< 0 or -1
    int (*ssh_configure_v4acl)(vrf_node* node, uint32_t type);        ///< 0 or -1
    int (*ssh_configure_v6acl)(vrf_node* node, uint32_t type);        ///< 0 or -1
    void (*ssh_remove_v4acl_config)(vrf_node* node, uint32_t type);
    void (*ssh_remove_v6acl_config)(vrf_node* node, uint32_t type);
    void (*release_unused_acls)();        ///< ends the subscriptions to lists that no VRF names
    void (*reload_acls)(vrf_node* node);  ///< retries the lists of a VRF that are not in force

    // oper/
    void (*ocssh_telemetry_publish)();
};

extern upcalls agent_upcalls;

/// Publishes the server's telemetry state, if this agent has telemetry.
void publish_telemetry();

#endif
