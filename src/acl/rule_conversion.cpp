#include "acl/rule_conversion.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>

#include "acl/rule_matches.h"
#include "acl/rule_text.h"
#include "core/debug.h"
#include "platform/acl_service.h"
#include "vrf/acl_types.h"

namespace {

/// The fields that both families' entries have under different names, apart from the numeric conditions.
struct entry_parts {
    const void* entry;  ///< for its conditions
    int32_t grant;
    uint32_t protocol_operator;
    uint32_t protocol;
    int32_t log_option;
    const char* counter_name;
    int32_t tcp_flags_operator;
    uint32_t tcp_flags;
    uint32_t tcp_flags_mask;
};

struct family_rules {
    uint32_t any_protocol;
    acl_type netconf_type;
    bool is_ipv6;
};

constexpr family_rules ipv4_rules = {ACL_PROTOCOL_ANY_IPV4, acl_netconf_v4, false};
constexpr family_rules ipv6_rules = {ACL_PROTOCOL_ANY_IPV6, acl_netconf_v6, true};

bool concerns_tcp(const family_rules& family, uint32_t operation, uint32_t protocol) {
    return protocol == ACL_PROTOCOL_TCP || (operation != ACL_PROTOCOL_EQUAL && protocol == family.any_protocol);
}

void append_verdict(rule_text& rule, int32_t grant) {
    const char* name = acl_service_action_name(static_cast<uint32_t>(grant));
    if (strcmp(name, "permit") == 0) {
        append_piece(rule, "accept ");
    } else if (strcmp(name, "deny") == 0) {
        append_piece(rule, "drop ");
    }
}

/// Ends a rule: log, counter, service port, verdict; then writes the line to the file.
void finish_rule(rule_text& rule, const entry_parts& entry, bool excluded, bool negated, uint32_t service_port,
                 FILE* rule_file) {
    if (entry.log_option == ACL_LOG) {
        append_piece(rule, "log ");
    }
    if (entry.counter_name != nullptr && entry.counter_name[0] != '\0') {
        append_piece(rule, "counter ");
    }
    if (excluded && !negated) {
        return;
    }
    if (!excluded) {
        append_piece(rule, "tcp dport %d ", {service_port});
    }
    append_verdict(rule, entry.grant);
    debug_print("NFT rule  = %s", rule.buffer);
    fwrite(rule.buffer, 1, std::min(rule.length, rule_text_size - 1), rule_file);
    fputc('\n', rule_file);
}

acl_condition condition_of(const entry_parts& entry, const family_rules& family, acl_condition_id condition) {
    return acl_read_condition(entry.entry, acl_fields_of(acl_conditions[condition], family.is_ipv6));
}

/// Builds one rule. The two functions append the source and the destination address; either may refuse the entry.
template <typename append_source, typename append_destination>
void convert_entry(const entry_parts& entry, const family_rules& family, uint32_t type, FILE* rule_file,
                   append_source source, append_destination destination) {
    if (!concerns_tcp(family, entry.protocol_operator, entry.protocol)) {
        return;
    }
    rule_text rule;
    if (!source(rule)) {
        return;
    }
    const acl_condition from = condition_of(entry, family, ACL_SOURCE_PORT);
    append_sport_match(rule, static_cast<uint32_t>(from.operation), from.first, from.second);
    if (!destination(rule)) {
        return;
    }
    bool excluded = false;
    bool negated = false;
    const acl_condition to = condition_of(entry, family, ACL_DESTINATION_PORT);
    check_dport_match(rule, static_cast<uint32_t>(to.operation), to.first, to.second, excluded, negated, type);
    append_tcp_flags_match(rule, static_cast<uint32_t>(entry.tcp_flags_operator), entry.tcp_flags,
                           entry.tcp_flags_mask);
    append_conditions(rule, entry.entry, family.is_ipv6);
    finish_rule(rule, entry, excluded, negated, type == family.netconf_type ? netconf_port : ssh_port, rule_file);
}

/// Dotted-decimal text of an IPv4 address in network byte order.
struct ipv4_text {
    char text[INET_ADDRSTRLEN];

    explicit ipv4_text(uint32_t address) {
        const auto* octets = reinterpret_cast<const uint8_t*>(&address);
        char* end = text;
        for (size_t i = 0; i < sizeof(address); ++i) {
            end = std::to_chars(end, std::end(text), static_cast<unsigned>(octets[i])).ptr;
            *end++ = '.';
        }
        end[-1] = '\0';
    }
};

/// How an IPv4 address condition is written: a host, any, a prefix.
struct ipv4_address_texts {
    const char* host;
    const char* any;
    const char* prefix;
};

constexpr ipv4_address_texts ipv4_source = {"                ip saddr %s ", "                ip saddr 0.0.0.0/0 ",
                                            "                ip saddr %s/%u "};
constexpr ipv4_address_texts ipv4_destination = {"ip daddr %s ", "ip daddr 0.0.0.0/0 ", "ip daddr %s/%u "};

/// Appends the condition. Returns false for a wildcard that nftables cannot express.
bool append_ipv4_address(rule_text& rule, const ipv4_address_texts& texts, uint32_t address, uint32_t wildcard) {
    if (wildcard == 0) {
        append_piece(rule, texts.host, {ipv4_text(address).text});
        return true;
    }
    if (wildcard == UINT32_MAX) {
        append_piece(rule, texts.any);
        return true;
    }
    const uint32_t length = mask_prefix_length(~wildcard);
    if (length == 0) {
        return false;
    }
    append_piece(rule, texts.prefix, {ipv4_text(address).text, length});
    return true;
}

/// How an IPv6 address condition is written: a host, any, and the start of any other.
struct ipv6_address_texts {
    const char* host;
    const char* any;
    const char* other;
};

// The third form has one fewer leading blank and no trailing blank: the prefix length or the mask follows directly.
constexpr ipv6_address_texts ipv6_source = {"                ip6 saddr %s ", "                ip6 saddr ::/0 ",
                                            "               ip6 saddr %s"};
constexpr ipv6_address_texts ipv6_destination = {"ip6 daddr %s ", "ip6 daddr ::/0 ", "ip6 daddr %s"};

bool is_zero(const uint8_t address[16]) {
    return std::all_of(address, address + 16, [](uint8_t octet) { return octet == 0; });
}

void append_ipv6_address(rule_text& rule, const ipv6_address_texts& texts, const uint8_t address[16],
                         const uint8_t mask[16], uint32_t stored_length) {
    uint32_t length = 0;
    const bool contiguous = acl_service_ipv6_prefix_length(mask, &length) != 0;
    char text[INET6_ADDRSTRLEN];
    if (contiguous && length == 0 && is_zero(address)) {
        append_piece(rule, texts.any);
        return;
    }
    if (contiguous && length == 128) {
        append_piece(rule, texts.host, {ipv6_address_text(address, text)});
        return;
    }
    append_piece(rule, texts.other, {ipv6_address_text(address, text)});
    if (contiguous && length == stored_length) {
        append_piece(rule, "/%d ", {length});
    } else {
        append_piece(rule, " %s ", {ipv6_address_text(mask, text)});
    }
}

entry_parts parts_of(const acl_ipv4_entry& entry) {
    return {.entry = &entry,
            .grant = entry.Grant,
            .protocol_operator = entry.ProtocolOperator,
            .protocol = entry.Protocol,
            .log_option = entry.LogOption,
            .counter_name = entry.CounterName,
            .tcp_flags_operator = entry.TCPFlagsOperator,
            .tcp_flags = entry.TCPFlags,
            .tcp_flags_mask = entry.TCPFlagsMask};
}

entry_parts parts_of(const acl_ipv6_entry& entry) {
    return {.entry = &entry,
            .grant = entry.IsPacketAllowOrDeny,
            .protocol_operator = entry.IsProtocolOperator,
            .protocol = entry.IsIPV6ProtocolType,
            .log_option = entry.IsLogOption,
            .counter_name = entry.CounterName,
            .tcp_flags_operator = entry.IsTCPBitsOperator,
            .tcp_flags = entry.IsTCPBits,
            .tcp_flags_mask = entry.IsTCPBitsMask};
}

}  // namespace

void ssh_convert_ipv4_acl_rule(const acl_ipv4_entry& entry, FILE* rule_file, uint32_t type) {
    const char* routine = __func__;
    convert_entry(
        parts_of(entry), ipv4_rules, type, rule_file,
        [&](rule_text& rule) {
            if (append_ipv4_address(rule, ipv4_source, entry.SourceAddress, entry.SourceAddressMask)) {
                return true;
            }
            debug_print("%s: NFtables doesn't support wildcard bits", routine);
            return false;
        },
        [&](rule_text& rule) {
            return append_ipv4_address(rule, ipv4_destination, entry.DestinationAddress, entry.DestinationAddressMask);
        });
}

void ssh_convert_ipv6_acl_rule(const acl_ipv6_entry& entry, FILE* rule_file, uint32_t type) {
    convert_entry(
        parts_of(entry), ipv6_rules, type, rule_file,
        [&](rule_text& rule) {
            append_ipv6_address(rule, ipv6_source, entry.IsSourceAddressInNumbers, entry.SourceMask,
                                entry.IsSourceAddressPrefixLength);
            return true;
        },
        [&](rule_text& rule) {
            append_ipv6_address(rule, ipv6_destination, entry.IsDestinationAddressInNumbers, entry.DestinationMask,
                                entry.IsDestinationAddressPrefixLength);
            return true;
        });
}
