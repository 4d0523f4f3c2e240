/// Conversion of access-list entries into nftables rules.
///
/// Only TCP to the service's port is ever filtered; an entry that cannot be expressed is omitted.
#ifndef ACL_RULE_CONVERSION_H
#define ACL_RULE_CONVERSION_H

#include <cstdint>
#include <cstdio>

#include "platform/acl_entry.h"

/// Writes the entry's rule, zero lines or one, into the open rule file. `type` is 0 or 1.
void ssh_convert_ipv4_acl_rule(const acl_ipv4_entry& entry, FILE* rule_file, uint32_t type);

/// The same for IPv6; `type` is 2 or 3.
void ssh_convert_ipv6_acl_rule(const acl_ipv6_entry& entry, FILE* rule_file, uint32_t type);

#endif
