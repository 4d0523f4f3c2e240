#include "acl/rule_matches.h"

#include <arpa/inet.h>

#include <algorithm>
#include <bit>
#include <iterator>

#include "core/debug.h"
#include "platform/acl_entry.h"
#include "vrf/acl_types.h"

namespace {

/// Match texts by operator; the last takes two values.
struct match_texts {
    const char* format[ACL_OPERATOR_COUNT];
};

static_assert(ACL_NONE == 0 && ACL_EQ == 1 && ACL_GT == 2 && ACL_LT == 3 && ACL_NE == 4 && ACL_RANGE == 5);

/// Appends a condition according to its row.
template <uint32_t condition>
void append_condition(rule_text& rule, uint32_t operation, uint32_t value1, uint32_t value2, bool is_ipv6);

/// How a condition is written in rules.
struct condition_rule {
    uint32_t condition;  ///< acl_condition_id
    match_texts ipv4;
    match_texts ipv6;

    /// Appends it after the TCP flags; null for a port, which is handled with its address.
    void (*append)(rule_text& rule, uint32_t operation, uint32_t value1, uint32_t value2, bool is_ipv6);
};

constexpr match_texts source_port_texts = {
    {nullptr, "tcp sport eq %d ", "tcp sport gt %d ", "tcp sport lt %d ", "tcp sport ne %d ", "tcp sport %d-%d "}};

/// One row per condition, in the order in which they appear in rules.
constexpr condition_rule condition_rules[] = {
    {ACL_SOURCE_PORT, source_port_texts, source_port_texts, nullptr},
    {ACL_DESTINATION_PORT, {}, {}, nullptr},  // see check_dport_match
    {ACL_DSCP,
     {{nullptr, "ip dscp eq %d ", "ip dscp gt %d ", "ip dscp lt %d ", "ip dscp ne %d ", "ip dscp %d-%d "}},
     {{nullptr, "ip6 dscp eq %d ", "ip6 dscp gt %d ", "ip6 dscp lt %d ", "ip6 dscp ne %d ", "ip6 dscp %d-%d "}},
     set_dscp_value},
    {ACL_PACKET_LENGTH,
     {{nullptr, "ip length eq %d ", "ip length gt %d ", "ip length lt %d ", "ip length ne %d ", "ip length %d-%d "}},
     {{nullptr, "ip6 length eq %d ", "ip6 length gt %d ", "ip6 length lt %d ", "ip6 length ne %d ",
       "ip6 length %d-%d "}},
     append_length_match},
    {ACL_TTL,
     {{nullptr, "ip ttl eq %d ", "ip ttl gt %d ", "ip ttl lt %d ", "ip ttl ne %d ", "ip ttl %d-%d "}},
     {{nullptr, "ip6 hoplimit eq %d ", "ip6 hoplimit gt %d ", "ip6 hoplimit lt %d ", "ip6 hoplimit ne %d ",
       "ip6 hoplimit %d-%d "}},
     append_ttl_match},
    {ACL_FRAGMENT_OFFSET,
     {{nullptr, "ip frag-off eq %d ", "ip frag-off gt %d ", "ip frag-off lt %d ", "ip frag-off ne %d ",
       "ip frag-off %d-%d "}},
     {},
     append_condition<ACL_FRAGMENT_OFFSET>},
};

constexpr const condition_rule& rule_of(uint32_t condition) {
    return *std::ranges::find(condition_rules, condition, &condition_rule::condition);
}

/// Whether each operator has its text, if a family has the condition.
constexpr bool is_complete(const match_texts& texts, const acl_condition_fields& fields) {
    return fields.operation.width == 0 || std::ranges::count(texts.format, nullptr) == 1;
}

constexpr bool is_port(uint32_t condition) {
    return condition == ACL_SOURCE_PORT || condition == ACL_DESTINATION_PORT;
}

constexpr bool each_condition_has_one_complete_row() {
    return std::ranges::all_of(acl_conditions, [](const acl_condition_row& row) {
        if (std::ranges::count(condition_rules, row.condition, &condition_rule::condition) != 1) {
            return false;
        }
        const condition_rule& rule = rule_of(row.condition);
        return is_port(row.condition) || (is_complete(rule.ipv4, row.ipv4) && is_complete(rule.ipv6, row.ipv6));
    });
}

static_assert(std::size(condition_rules) == ACL_CONDITION_COUNT && each_condition_has_one_complete_row());

constexpr uint32_t tcp_flag_bits = 0x3f;

void append_match(rule_text& rule, const match_texts& texts, uint32_t operation, uint32_t value1, uint32_t value2) {
    if (operation == ACL_NONE || operation >= ACL_OPERATOR_COUNT) {
        return;
    }
    append_piece(rule, texts.format[operation], {value1, value2});
}

template <uint32_t condition>
void append_condition(rule_text& rule, uint32_t operation, uint32_t value1, uint32_t value2, bool is_ipv6) {
    constexpr const condition_rule& row = rule_of(condition);
    append_match(rule, is_ipv6 ? row.ipv6 : row.ipv4, operation, value1, value2);
}

/// Whether a condition on the destination port excludes the service's port.
bool leaves_port_out(uint32_t operation, uint32_t value, uint32_t port) {
    switch (operation) {
        case ACL_EQ:
            return value != port;
        case ACL_GT:
            return value >= port + 1;
        case ACL_LT:
            return value <= port - 1;
        case ACL_NE:
            return value == port;
        case ACL_RANGE:
            return value > port;
        default:
            return false;
    }
}

}  // namespace

void append_sport_match(rule_text& rule, uint32_t operation, uint32_t port1, uint32_t port2) {
    append_match(rule, source_port_texts, operation, port1, port2);
}

uint32_t compared_port_of(uint32_t type) {
    return type == acl_ssh_v4 ? ssh_port : netconf_port;
}

void check_dport_match(rule_text& rule, uint32_t operation, uint32_t port1, uint32_t /*port2*/, bool& excluded,
                       bool& negated, uint32_t type) {
    const uint32_t port = compared_port_of(type);
    if (!leaves_port_out(operation, port1, port)) {
        return;
    }
    excluded = true;
    if (operation == ACL_NE) {
        append_piece(rule, "tcp dport ne %d ", {port});
        negated = true;
    }
}

void append_tcp_flags_match(rule_text& rule, uint32_t operation, uint32_t flags, uint32_t mask) {
    const uint32_t bits = mask & tcp_flag_bits;
    const uint32_t set = flags & bits;
    if (operation == 1) {
        debug_print("frag_bit_mask = %d, frag_bit_set = %d ", static_cast<int>(bits), static_cast<int>(set));
    } else if (operation == 2) {
        debug_print("frag_bit = %d, frag_bit_set = %d ", static_cast<int>(bits), static_cast<int>(set));
    } else {
        return;
    }
    append_piece(rule, "tcp flags & %d == %d ", {bits, set});
}

void set_dscp_value(rule_text& rule, uint32_t operation, uint32_t value1, uint32_t value2, bool is_ipv6) {
    debug_print("Entered %s", __func__);
    const bool named = operation >= ACL_GT && operation <= ACL_RANGE;
    append_condition<ACL_DSCP>(rule, named ? operation : static_cast<uint32_t>(ACL_EQ), value1, value2, is_ipv6);
}

void append_length_match(rule_text& rule, uint32_t operation, uint32_t value1, uint32_t value2, bool is_ipv6) {
    append_condition<ACL_PACKET_LENGTH>(rule, operation, value1, value2, is_ipv6);
}

void append_ttl_match(rule_text& rule, uint32_t operation, uint32_t value1, uint32_t value2, bool is_ipv6) {
    append_condition<ACL_TTL>(rule, operation, value1, value2, is_ipv6);
}

void append_conditions(rule_text& rule, const void* entry, bool is_ipv6) {
    for (const condition_rule& row : condition_rules) {
        const acl_condition_fields& fields = acl_fields_of(acl_conditions[row.condition], is_ipv6);
        if (row.append != nullptr && acl_has_condition(entry, fields)) {
            const acl_condition condition = acl_read_condition(entry, fields);
            row.append(rule, static_cast<uint32_t>(condition.operation), condition.first, condition.second, is_ipv6);
        }
    }
}

uint32_t mask_prefix_length(uint32_t netmask) {
    return static_cast<uint32_t>(std::countl_one(ntohl(netmask)));
}
