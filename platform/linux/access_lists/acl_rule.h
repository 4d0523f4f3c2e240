/// An access-list entry independent of its address family, and its conversion to and from the family's record.
#ifndef LINUX_ACCESS_LISTS_ACL_RULE_H
#define LINUX_ACCESS_LISTS_ACL_RULE_H

#include <array>
#include <cstdint>
#include <string>

#include "linux/access_lists/acl_service_internal.h"
#include "platform/acl_entry.h"

/// A condition on an address. IPv4 uses the first four bytes and a wildcard mask (bits set to one are ignored); IPv6
/// uses all sixteen and a network mask (bits set to one are compared) with its length.
struct acl_address {
    std::array<uint8_t, 16> address = {};
    std::array<uint8_t, 16> mask = {};
    uint32_t prefix_length = 0;
};

struct acl_rule {
    uint32_t sequence = 0;
    int32_t action = 0;  ///< index into acl_action_names
    bool any_protocol = false;
    uint32_t protocol = 0;
    acl_address source;
    acl_address destination;
    bool log = false;
    std::string counter;
    int32_t tcp_flags_operation = 0;
    uint8_t tcp_flags = 0;
    uint8_t tcp_flags_mask = 0;
    std::array<acl_condition, ACL_CONDITION_COUNT> conditions = {};  ///< by acl_condition_id
};

/// The descriptor of a family's entries.
const record_descriptor* acl_entry_descriptor(uint32_t family);

/// Encodes a rule as an entry of the family. Returns 0 or the codec's error. May throw std::bad_alloc.
platform_status acl_encode_rule(uint32_t family, const acl_rule& rule, acl_stored_entry& entry);

/// Decodes an entry of the family. Returns 0 or the codec's error. May throw std::bad_alloc.
platform_status acl_decode_rule(uint32_t family, const acl_stored_entry& entry, acl_rule& rule);

#endif
