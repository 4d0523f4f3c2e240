/// Appliers of the items that determine in which VRFs a server runs.
#ifndef VRF_VRF_APPLIERS_H
#define VRF_VRF_APPLIERS_H

#include "config_files/vrf_node.h"
#include "platform/datastore_backend.h"

/// 1 while the item of the VRF "default" exists.
extern uint32_t default_vrf_configured;

/// sshd/vrf/NAME: an SSH server in a VRF. Returns 0, or 1 for a missing name or when out of memory.
platform_status sshd_apply_vrf_func(const datastore_change* change, const datastore_path_components* components);

/// sshd/v2: the protocol version, and a server in the default VRF. Returns 0, or 1 when out of memory.
platform_status sshd_apply_ver_func(const datastore_change* change, const datastore_path_components* components);

/// sshd/vrf-netconf/NAME: a NETCONF server in a VRF. Returns 0, or 1 for a missing name or when out of memory.
platform_status sshd_apply_conf_netconf_vrf(const datastore_change* change,
                                            const datastore_path_components* components);

/// Tries again to carry out the deletions of items whose lines could not be removed from the VRF's file. Deletes the node if
/// that succeeds and no other item requests a server in the VRF.
void carry_out_due_deletions(vrf_node* node);

#endif
