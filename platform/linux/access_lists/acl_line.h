/// Access-list entries in the usual notation, one per line:
///
///   [SEQUENCE] permit|deny PROTOCOL SOURCE [PORT] DESTINATION [PORT] [OPTION...]
///
/// PROTOCOL is tcp, udp, icmp, a number, or ip (also ipv4, ipv6) for any. SOURCE and DESTINATION are any, host ADDRESS,
/// ADDRESS/LENGTH or, in IPv4, ADDRESS WILDCARD-MASK; ignored bits are cleared. PORT is eq, gt, lt or neq with a port,
/// or range with two; a port is a number or ssh, telnet, domain, www, https, netconf. An OPTION is log, counter NAME,
/// established, tcp-flags with +FLAG and -FLAG words, or a condition's keyword in platform/acl_entry.h (dscp, ttl,
/// packet-length, fragment-offset in IPv4) with a number or a condition like a port's; each at most once. "remark"
/// entries, empty lines and lines that begin with '#' or '!' are skipped.
#ifndef LINUX_ACCESS_LISTS_ACL_LINE_H
#define LINUX_ACCESS_LISTS_ACL_LINE_H

#include <string>
#include <string_view>
#include <vector>

#include "linux/access_lists/acl_rule.h"

/// Reads one line. Returns true and fills `rule` (its sequence is 0 if the line has none). For a line to skip, returns
/// false with an empty `error`; otherwise `error` says what is wrong and what is expected. May throw std::bad_alloc.
bool acl_parse_line(uint32_t family, std::string_view line, acl_rule& rule, std::string& error);

/// A rule as a line of this notation, without a newline.
std::string acl_format_line(uint32_t family, const acl_rule& rule);

/// Numbers each rule that has no sequence number ten higher than the rule before it, and sorts all. Reports a duplicate
/// number in `error`.
bool acl_number_rules(std::vector<acl_rule>& rules, std::string& error);

#endif
