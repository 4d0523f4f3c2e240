#include "acl/rule_matches.h"

#include <arpa/inet.h>

#include <bit>

#include "core/debug.h"
#include "vrf/acl_types.h"

namespace {

enum operation_code : uint32_t {
    operation_none,
    operation_eq,
    operation_gt,
    operation_lt,
    operation_ne,
    operation_range,
    operation_count
};

/// Match texts by operator; the last takes two values.
struct match_texts {
    const char* format[operation_count];
};

constexpr match_texts source_port_texts = {
    {nullptr, "tcp sport eq %d ", "tcp sport gt %d ", "tcp sport lt %d ", "tcp sport ne %d ", "tcp sport %d-%d "}};

// Indexed by is_ipv6.
constexpr match_texts dscp_texts[] = {
    {{nullptr, "ip dscp eq %d ", "ip dscp gt %d ", "ip dscp lt %d ", "ip dscp ne %d ", "ip dscp %d-%d "}},
    {{nullptr, "ip6 dscp eq %d ", "ip6 dscp gt %d ", "ip6 dscp lt %d ", "ip6 dscp ne %d ", "ip6 dscp %d-%d "}}};
constexpr match_texts length_texts[] = {
    {{nullptr, "ip length eq %d ", "ip length gt %d ", "ip length lt %d ", "ip length ne %d ", "ip length %d-%d "}},
    {{nullptr, "ip6 length eq %d ", "ip6 length gt %d ", "ip6 length lt %d ", "ip6 length ne %d ",
      "ip6 length %d-%d "}}};
constexpr match_texts ttl_texts[] = {
    {{nullptr, "ip ttl eq %d ", "ip ttl gt %d ", "ip ttl lt %d ", "ip ttl ne %d ", "ip ttl %d-%d "}},
    {{nullptr, "ip6 hoplimit eq %d ", "ip6 hoplimit gt %d ", "ip6 hoplimit lt %d ", "ip6 hoplimit ne %d ",
      "ip6 hoplimit %d-%d "}}};

constexpr match_texts fragment_texts = {{nullptr, "ip frag-off eq %d ", "ip frag-off gt %d ", "ip frag-off lt %d ",
                                         "ip frag-off ne %d ", "ip frag-off %d-%d "}};

constexpr uint32_t tcp_flag_bits = 0x3f;

void append_match(rule_text& rule, const match_texts& texts, uint32_t operation, uint32_t value1, uint32_t value2) {
    if (operation == operation_none || operation >= operation_count) {
        return;
    }
    append_piece(rule, texts.format[operation], {value1, value2});
}

/// Whether a condition on the destination port leaves the service's port out.
bool leaves_port_out(uint32_t operation, uint32_t value, uint32_t port) {
    switch (operation) {
        case operation_eq:
            return value != port;
        case operation_gt:
            return value >= port + 1;
        case operation_lt:
            return value <= port - 1;
        case operation_ne:
            return value == port;
        case operation_range:
            return value > port;
        default:
            return false;
    }
}

}  // namespace

void append_sport_match(rule_text& rule, uint32_t operation, uint32_t port1, uint32_t port2) {
    append_match(rule, source_port_texts, operation, port1, port2);
}

void check_dport_match(rule_text& rule, uint32_t operation, uint32_t port1, uint32_t /*port2*/, bool& excluded,
                       bool& negated, uint32_t type) {
    const uint32_t port = type == acl_ssh_v4 ? ssh_port : netconf_port;
    if (!leaves_port_out(operation, port1, port)) {
        return;
    }
    excluded = true;
    if (operation == operation_ne) {
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
    const bool named = operation >= operation_gt && operation <= operation_range;
    append_match(rule, dscp_texts[is_ipv6 ? 1 : 0], named ? operation : operation_eq, value1, value2);
}

void append_length_match(rule_text& rule, uint32_t operation, uint32_t value1, uint32_t value2, bool is_ipv6) {
    append_match(rule, length_texts[is_ipv6 ? 1 : 0], operation, value1, value2);
}

void append_ttl_match(rule_text& rule, uint32_t operation, uint32_t value1, uint32_t value2, bool is_ipv6) {
    append_match(rule, ttl_texts[is_ipv6 ? 1 : 0], operation, value1, value2);
}

void append_fragment_match(rule_text& rule, uint32_t operation, uint32_t value1, uint32_t value2) {
    append_match(rule, fragment_texts, operation, value1, value2);
}

uint32_t mask_prefix_length(uint32_t netmask) {
    return static_cast<uint32_t>(std::countl_one(ntohl(netmask)));
}
