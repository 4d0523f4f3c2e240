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
    const char* attach_failed_debug;  ///< format with the list's name; null prints nothing
    const char* attach_failed_log;
    const char* log_prefix;  ///< precedes the VRF's name in the log message
};

/// Makes the VRF's packet-filter tables. A failure is reported under the tag. Returns 0 or -1.
int make_nft_table(const char* tag, const char* vrf_name);

/// Empties the table of the slot's type. A failure is reported under the tag. Returns 0 or -1.
int flush_acl_rules(const char* tag, const char* vrf_name, const acl_slot& slot);

/// Attaches the list whose name the node holds in the slot. A failure is reported. Returns 0 or -1.
int attach_acl(vrf_node* node, const acl_slot& slot);

/// Detaches the list whose name the node holds in the slot, if it holds one, and forgets the name.
void detach_acl(vrf_node* node, const acl_slot& slot);

#endif
