/// Access lists bound to the SSH and NETCONF services of VRFs: read, converted, loaded, and followed while bound.
///
/// IPv4 and IPv6 share one set of routines over two rows of data. A list has one subscription, however many VRFs and
/// services use it; it is held by the VRF node that attached the list first.
#ifndef ACL_SUBSCRIPTION_H
#define ACL_SUBSCRIPTION_H

#include <cstdint>

#include "config_files/vrf_node.h"
#include "platform/acl_service.h"
#include "platform/datastore.h"
#include "platform/event_manager.h"

/// Result of reading a list's entries when binding to the datastore failed.
inline constexpr uint32_t acl_bind_failed = UINT32_MAX;

/// Lists the entries of an access list, whose name ends at its first '/'. Returns the datastore's list result, or
/// acl_bind_failed. The caller frees `*list` and unbinds `*binding`.
uint32_t connect_to_ipv4_datastore_acl(const char* acl_name, datastore_list** list, uint32_t* count,
                                       datastore_binding** binding);
uint32_t connect_to_ipv6_datastore_acl(const char* acl_name, datastore_list** list, uint32_t* count,
                                       datastore_binding** binding);

/// Subscribes to the node's list of a type, unless there is a subscription already. Returns 0 or -1.
int ssh_ipv4_acl_register_cb(acl_handle** head, vrf_node* node, uint32_t type, event_manager* manager);
int ssh_ipv6_acl_register_cb(acl_handle** head, vrf_node* node, uint32_t type, event_manager* manager);

/// Handles the change of a list: rebuilds and loads the file of every VRF and service that uses it, or flushes their tables
/// if the list is gone or empty. Skips a VRF without namespace. A failure in one VRF does not stop the others. Returns 0,
/// or 1 if any of them failed.
int ssh_ipv4_acl_reg_upd(const acl_change_notice* notice);
int ssh_ipv6_acl_reg_upd(const acl_change_notice* notice);

/// Attaches the list that the node names for a type (0 and 1; 2 and 3). A list that does not exist yet is subscribed to
/// and loaded when it appears; one that cannot be loaded is subscribed to as well. Returns 0 or -1.
int ssh_configure_v4acl(event_manager* manager, vrf_node* node, uint32_t type);
int ssh_configure_v6acl(event_manager* manager, vrf_node* node, uint32_t type);

/// Flushes the type's table, unless the VRF has no namespace, and ends the subscription if the list has no other user.
void ssh_remove_v4acl_config(vrf_node* node, uint32_t type);
void ssh_remove_v6acl_config(vrf_node* node, uint32_t type);

/// Ends the subscriptions to lists that no VRF names.
void release_unused_subscriptions();

/// 0 if another VRF, or the other service of this one, uses the node's list of this type; otherwise 1.
int acl_in_use_elsewhere(const vrf_node* node, uint32_t type);
int acl6_in_use_elsewhere(const vrf_node* node, uint32_t type);

#endif
