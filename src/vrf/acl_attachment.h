/// Access lists of a VRF's servers, as far as the VRF and namespace handlers deal with them.
///
/// An agent without access lists has nothing to do here: every function then succeeds.
#ifndef VRF_ACL_ATTACHMENT_H
#define VRF_ACL_ATTACHMENT_H

#include <cstdint>

#include "config_files/vrf_node.h"
#include "core/upcalls.h"

/// Kinds of access lists: service and address family.
enum acl_kind : uint32_t {
    ACL_SSH_V4 = 0,
    ACL_NETCONF_V4 = 1,
    ACL_SSH_V6 = 2,
    ACL_NETCONF_V6 = 3,
};

/// Where an access list of one kind stands, and who attaches and detaches it.
struct acl_slot {
    char (vrf_node::*name)[acl_name_size];
    uint32_t kind;
    int (*upcalls::*attach)(vrf_node* node, uint32_t kind);
    void (*upcalls::*detach)(vrf_node* node, uint32_t kind);
    const char* attach_failed_debug;  ///< format with the list's name; null prints nothing
    const char* attach_failed_log;
    const char* log_prefix;  ///< stands before the VRF's name in the log message
};

/// Makes the VRF's packet-filter tables. A failure is reported under the tag. Returns 0 or -1.
int make_nft_table(const char* tag, const char* vrf_name);

/// Empties the table of the slot's kind. A failure is reported under the tag. Returns 0 or -1.
int flush_acl_rules(const char* tag, const char* vrf_name, const acl_slot& slot);

/// Attaches the list whose name the node holds in the slot. A failure is reported. Returns 0 or -1.
int attach_acl(vrf_node* node, const acl_slot& slot);

/// Detaches the list whose name the node holds in the slot, if it holds one, and forgets the name.
void detach_acl(vrf_node* node, const acl_slot& slot);

#endif
