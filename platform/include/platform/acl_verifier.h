/// Verification of access lists: the rules that a list would become, before it is stored.
///
/// The agent knows how a list becomes rules, and the platform has the packet filter check them. The platform asks for the
/// rules of both services and refuses a list that the packet filter would not load. An addition to the ACL service, for
/// platforms on which operators write the lists; a platform may leave the verifier uncalled.
#ifndef PLATFORM_ACL_VERIFIER_H
#define PLATFORM_ACL_VERIFIER_H

#include <stddef.h>
#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

/// An entry of the list, encoded by its family's descriptor.
struct acl_list_entry {
    const void* record;
    size_t size;
};

/// The effect of an entry.
enum acl_entry_effect {
    ACL_ENTRY_IGNORED,            ///< it makes no rule
    ACL_ENTRY_MAKES_RULE,         ///< it decides about connections to the service's port
    ACL_ENTRY_CLOSES_OTHER_PORTS  ///< its rule drops connections to ports of other services
};

/// An entry's rule: a part of the rules' text. Its size is 0 if there is none.
struct acl_entry_rule {
    enum acl_entry_effect effect;
    size_t offset;
    size_t size;
};

struct acl_list_rules {
    char* text;              ///< allocated with malloc; freed by the platform
    size_t size;             ///< bytes of the text
    uint32_t compared_port;  ///< the port with which an entry's destination port is compared
};

struct acl_verifier {
    /// Makes the nftables commands that would load a list with these entries for a service (an MPP_SERVICE_ code). They
    /// declare the empty table that they refer to, so that they can be checked in an empty network namespace. Stores one row
    /// for each entry in `entry_rules`. Returns 0, ENOMEM, or the codec's error about an entry; the outputs are then
    /// undefined and need not be freed.
    platform_status (*make_rules)(uint32_t family, uint32_t service, const struct acl_list_entry* entries, size_t count,
                                  struct acl_entry_rule* entry_rules, struct acl_list_rules* rules, void* context);
};

/// Registers the agent's verifier, which replaces an earlier one. It is copied, and called only from the event loop's
/// thread. EINVAL without `make_rules`.
platform_status acl_service_register_verifier(const struct acl_verifier* verifier, void* context);

#ifdef __cplusplus
}
#endif

#endif
