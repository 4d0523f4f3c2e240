/// What the rules of an access list do with a new connection.
#ifndef LINUX_ACCESS_LISTS_RULE_EVALUATION_H
#define LINUX_ACCESS_LISTS_RULE_EVALUATION_H

#include <array>
#include <cstdint>
#include <string_view>

/// An address in network byte order; IPv4 uses the first four bytes.
using ip_octets = std::array<uint8_t, 16>;

/// The addresses and ports of a TCP connection; the destination is the server.
struct rule_connection {
    bool is_ipv6 = false;
    ip_octets source = {};
    ip_octets destination = {};
    uint16_t source_port = 0;
    uint16_t destination_port = 0;
};

/// Evaluates the first packet of a connection against rules as acl_make_rules returns them. Returns false only if the
/// rules certainly drop it: a rule with a condition on something else, such as the hop limit, may or may not match, so it
/// admits if it accepts and is skipped if it drops.
bool rules_admit(std::string_view rules, const rule_connection& connection);

#endif
