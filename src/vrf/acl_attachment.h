/// Attaching access lists to a VRF's servers and detaching them, for the VRF and namespace handlers.
///
/// In an agent without access lists every function succeeds and does nothing.
#ifndef VRF_ACL_ATTACHMENT_H
#define VRF_ACL_ATTACHMENT_H

#include <cstdint>

#include "config_files/vrf_node.h"
#include "core/upcalls.h"
#include "vrf/acl_types.h"

/// Where a node holds the name of its access list of one type, and the functions that attach and detach the list.
struct acl_slot {
    char (vrf_node::*name)[acl_name_size];
    acl_type type;
    int (*upcalls::*attach)(vrf_node* node, uint32_t type);
    void (*upcalls::*detach)(vrf_node* node, uint32_t type);
    const char* attach_failed_debug;  ///< format with the list's name; null: not printed
    const char* attach_failed_log;
    const char* log_prefix;  ///< precedes the VRF's name in the log message
};

/// Creates the VRF's nftables tables. A failure is logged under the tag. Returns 0 or -1.
int make_nft_table(const char* tag, const char* vrf_name);

/// Flushes the table of the slot's type. A failure is logged under the tag. Returns 0 or -1.
int flush_acl_rules(const char* tag, vrf_node* node, const acl_slot& slot);

/// Attaches the list named in the node's slot. A failure is logged and leaves the slot's service blocked in the list's
/// family. Returns 0 or -1.
int attach_acl(vrf_node* node, const acl_slot& slot);

/// Stores the name of a slot's list; null for none. Returns whether the slot's rules must be replaced: false if the same
/// list is in force already.
bool exchange_acl_name(vrf_node* node, const acl_slot& slot, const char* acl_name);

/// Retries the lists of the VRF that are not in force, if it has a namespace.
void reload_acls(vrf_node* node);

/// Ends the subscriptions to lists that no VRF names.
void release_unused_acls();

/// Detaches the list named in the node's slot, if any, clears the name and lifts a block caused by the list.
void detach_acl(vrf_node* node, const acl_slot& slot);

#endif
