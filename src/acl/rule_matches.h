/// Appenders, each of which writes one condition of an access-list entry as nftables match text.
///
/// Operators are the ACL service's (acl_operator). ACL_NONE and any other value append nothing.
#ifndef ACL_RULE_MATCHES_H
#define ACL_RULE_MATCHES_H

#include <cstdint>

#include "acl/rule_text.h"

void append_sport_match(rule_text& rule, uint32_t operation, uint32_t port1, uint32_t port2);

/// Compares an entry's destination-port condition with the service's port. Sets `excluded` if the entry cannot apply to
/// it, and also `negated` if a match on "not the service's port" was appended.
///
/// The port is 830 for every type but 0, deliberately also for SSH over IPv6. Greater than 22 and less than 22 count as
/// covering port 22, and only the lower end of a range is considered.
void check_dport_match(rule_text& rule, uint32_t operation, uint32_t port1, uint32_t port2, bool& excluded,
                       bool& negated, uint32_t type);

/// The port with which check_dport_match compares for a type.
uint32_t compared_port_of(uint32_t type);

/// Only operators 1 and 2 append anything, and both append the same text.
void append_tcp_flags_match(rule_text& rule, uint32_t operation, uint32_t flags, uint32_t mask);

/// DSCP numbers its operators differently: 2 gt, 3 lt, 4 ne, 5 range; any other code, including 0 and 1, is eq.
void set_dscp_value(rule_text& rule, uint32_t operation, uint32_t value1, uint32_t value2, bool is_ipv6);

void append_length_match(rule_text& rule, uint32_t operation, uint32_t value1, uint32_t value2, bool is_ipv6);

/// TTL, or hop limit in IPv6.
void append_ttl_match(rule_text& rule, uint32_t operation, uint32_t value1, uint32_t value2, bool is_ipv6);

/// Appends the conditions of an acl_ipv4_entry or acl_ipv6_entry that follow the TCP flags, in their prescribed order.
void append_conditions(rule_text& rule, const void* entry, bool is_ipv6);

/// Leading one bits of a netmask in network byte order; anything after the first zero bit is ignored.
uint32_t mask_prefix_length(uint32_t netmask);

#endif
