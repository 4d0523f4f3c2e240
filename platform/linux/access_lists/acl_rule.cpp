#include "linux/access_lists/acl_rule.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

void put_address(uint32_t& address, uint32_t& wildcard, const acl_address& from) {
    memcpy(&address, from.address.data(), sizeof address);
    memcpy(&wildcard, from.mask.data(), sizeof wildcard);
}

acl_address address_of(uint32_t address, uint32_t wildcard) {
    acl_address to;
    memcpy(to.address.data(), &address, sizeof address);
    memcpy(to.mask.data(), &wildcard, sizeof wildcard);
    return to;
}

void put_address(uint8_t (&address)[16], uint8_t (&mask)[16], uint32_t& length, const acl_address& from) {
    memcpy(address, from.address.data(), sizeof address);
    memcpy(mask, from.mask.data(), sizeof mask);
    length = from.prefix_length;
}

acl_address address_of(const uint8_t (&address)[16], const uint8_t (&mask)[16], uint32_t length) {
    acl_address to;
    memcpy(to.address.data(), address, sizeof address);
    memcpy(to.mask.data(), mask, sizeof mask);
    to.prefix_length = length;
    return to;
}

template <typename number_type>
void put(int32_t& operation, number_type& first, number_type& second, const acl_condition& from) {
    operation = from.operation;
    first = static_cast<number_type>(from.first);
    second = static_cast<number_type>(from.second);
}

acl_condition condition_of(int32_t operation, uint32_t first, uint32_t second) {
    return {operation, first, second};
}

void put(acl_ipv4_entry& entry, const acl_rule& rule) {
    entry.SequenceNumber = rule.sequence;
    entry.Grant = rule.action;
    entry.ProtocolOperator = rule.any_protocol ? 0 : ACL_PROTOCOL_EQUAL;
    entry.Protocol =
        static_cast<uint16_t>(rule.any_protocol ? static_cast<uint32_t>(ACL_PROTOCOL_ANY_IPV4) : rule.protocol);
    put_address(entry.SourceAddress, entry.SourceAddressMask, rule.source);
    put_address(entry.DestinationAddress, entry.DestinationAddressMask, rule.destination);
    put(entry.SourceOperator, entry.SourcePort1, entry.SourcePort2, rule.source_port);
    put(entry.DestinationOperator, entry.DestinationPort1, entry.DestinationPort2, rule.destination_port);
    entry.LogOption = rule.log ? ACL_LOG : 0;
    entry.DSCPPresent = rule.dscp.operation != ACL_NONE ? 1 : 0;
    entry.DSCP = static_cast<uint8_t>(rule.dscp.first);
    entry.DSCP2 = static_cast<uint8_t>(rule.dscp.second);
    entry.DSCPOperator = static_cast<uint8_t>(rule.dscp.operation);
    entry.TCPFlagsOperator = rule.tcp_flags_operation;
    entry.TCPFlags = rule.tcp_flags;
    entry.TCPFlagsMask = rule.tcp_flags_mask;
    put(entry.PacketLengthOperator, entry.PacketLength1, entry.PacketLength2, rule.packet_length);
    put(entry.TTLOperator, entry.TTL1, entry.TTL2, rule.ttl);
    put(entry.FragmentOffsetOperator, entry.FragmentOffset1, entry.FragmentOffset2, rule.fragment_offset);
}

void put(acl_ipv6_entry& entry, const acl_rule& rule) {
    entry.SequenceNumber = rule.sequence;
    entry.IsPacketAllowOrDeny = rule.action;
    entry.IsProtocolOperator = rule.any_protocol ? 0 : ACL_PROTOCOL_EQUAL;
    entry.IsIPV6ProtocolType = rule.any_protocol ? static_cast<uint32_t>(ACL_PROTOCOL_ANY_IPV6) : rule.protocol;
    put_address(entry.IsSourceAddressInNumbers, entry.SourceMask, entry.IsSourceAddressPrefixLength, rule.source);
    put_address(entry.IsDestinationAddressInNumbers, entry.DestinationMask, entry.IsDestinationAddressPrefixLength,
                rule.destination);
    put(entry.IsSourceOperator, entry.IsSourcePort1, entry.IsSourcePort2, rule.source_port);
    put(entry.IsDestinationOperator, entry.IsDestinationPort1, entry.IsDestinationPort2, rule.destination_port);
    entry.IsLogOption = rule.log ? ACL_LOG : 0;
    entry.IsTCPBitsOperator = rule.tcp_flags_operation;
    entry.IsTCPBits = rule.tcp_flags;
    entry.IsTCPBitsMask = rule.tcp_flags_mask;
    entry.IsDSCPPresent = rule.dscp.operation != ACL_NONE ? 1 : 0;
    entry.DSCPOperator = static_cast<uint8_t>(rule.dscp.operation);
    entry.IsDSCPValu = static_cast<uint8_t>(rule.dscp.first);
    entry.IsDSCPValu2 = static_cast<uint8_t>(rule.dscp.second);
    put(entry.IsPacketLengthOperator, entry.IsPacketLengthStart, entry.IsPacketLengthEnd, rule.packet_length);
    put(entry.IsTimeToLiveOperator, entry.IsTimeToLiveStart, entry.IsTimeToLiveEnd, rule.ttl);
}

acl_rule rule_of(const acl_ipv4_entry& entry) {
    acl_rule rule;
    rule.sequence = entry.SequenceNumber;
    rule.action = entry.Grant;
    rule.any_protocol = entry.Protocol == ACL_PROTOCOL_ANY_IPV4;
    rule.protocol = entry.Protocol;
    rule.source = address_of(entry.SourceAddress, entry.SourceAddressMask);
    rule.destination = address_of(entry.DestinationAddress, entry.DestinationAddressMask);
    rule.source_port = condition_of(entry.SourceOperator, entry.SourcePort1, entry.SourcePort2);
    rule.destination_port = condition_of(entry.DestinationOperator, entry.DestinationPort1, entry.DestinationPort2);
    rule.log = entry.LogOption == ACL_LOG;
    rule.dscp = entry.DSCPPresent != 0 ? condition_of(entry.DSCPOperator, entry.DSCP, entry.DSCP2) : acl_condition();
    rule.tcp_flags_operation = entry.TCPFlagsOperator;
    rule.tcp_flags = entry.TCPFlags;
    rule.tcp_flags_mask = entry.TCPFlagsMask;
    rule.packet_length = condition_of(entry.PacketLengthOperator, entry.PacketLength1, entry.PacketLength2);
    rule.ttl = condition_of(entry.TTLOperator, entry.TTL1, entry.TTL2);
    rule.fragment_offset = condition_of(entry.FragmentOffsetOperator, entry.FragmentOffset1, entry.FragmentOffset2);
    return rule;
}

acl_rule rule_of(const acl_ipv6_entry& entry) {
    acl_rule rule;
    rule.sequence = entry.SequenceNumber;
    rule.action = entry.IsPacketAllowOrDeny;
    rule.any_protocol = entry.IsIPV6ProtocolType == ACL_PROTOCOL_ANY_IPV6;
    rule.protocol = entry.IsIPV6ProtocolType;
    rule.source = address_of(entry.IsSourceAddressInNumbers, entry.SourceMask, entry.IsSourceAddressPrefixLength);
    rule.destination =
        address_of(entry.IsDestinationAddressInNumbers, entry.DestinationMask, entry.IsDestinationAddressPrefixLength);
    rule.source_port = condition_of(entry.IsSourceOperator, entry.IsSourcePort1, entry.IsSourcePort2);
    rule.destination_port =
        condition_of(entry.IsDestinationOperator, entry.IsDestinationPort1, entry.IsDestinationPort2);
    rule.log = entry.IsLogOption == ACL_LOG;
    rule.dscp = entry.IsDSCPPresent != 0 ? condition_of(entry.DSCPOperator, entry.IsDSCPValu, entry.IsDSCPValu2)
                                         : acl_condition();
    rule.tcp_flags_operation = entry.IsTCPBitsOperator;
    rule.tcp_flags = entry.IsTCPBits;
    rule.tcp_flags_mask = entry.IsTCPBitsMask;
    rule.packet_length = condition_of(entry.IsPacketLengthOperator, entry.IsPacketLengthStart, entry.IsPacketLengthEnd);
    rule.ttl = condition_of(entry.IsTimeToLiveOperator, entry.IsTimeToLiveStart, entry.IsTimeToLiveEnd);
    return rule;
}

template <typename entry_type>
platform_status encode(const record_descriptor* descriptor, const acl_rule& rule, acl_stored_entry& entry) {
    entry_type native = {};
    put(native, rule);
    std::string counter = rule.counter;
    native.CounterName = counter.empty() ? nullptr : counter.data();
    void* encoded = nullptr;
    size_t size = 0;
    const platform_status status = record_encode(descriptor, &native, &encoded, &size);
    if (status != PLATFORM_OK) {
        return status;
    }
    const std::unique_ptr<void, decltype(&free)> owned(encoded, free);
    entry = {rule.sequence, std::string(static_cast<const char*>(encoded), size)};
    return PLATFORM_OK;
}

template <typename entry_type>
platform_status decode(const record_descriptor* descriptor, const acl_stored_entry& entry, acl_rule& rule) {
    entry_type native = {};
    const platform_status status =
        record_decode(descriptor, entry.record.data(), entry.record.size(), &native, sizeof native);
    if (status != PLATFORM_OK) {
        return status;
    }
    rule = rule_of(native);
    rule.counter = native.CounterName != nullptr ? native.CounterName : "";
    record_release(descriptor, &native);
    return PLATFORM_OK;
}

}  // namespace

const record_descriptor* acl_entry_descriptor(uint32_t family) {
    return family == ACL_FAMILY_IPV6 ? acl_service_ipv6_entry_descriptor() : acl_service_ipv4_entry_descriptor();
}

platform_status acl_encode_rule(uint32_t family, const acl_rule& rule, acl_stored_entry& entry) {
    return (family == ACL_FAMILY_IPV6 ? encode<acl_ipv6_entry> : encode<acl_ipv4_entry>)(acl_entry_descriptor(family),
                                                                                         rule, entry);
}

platform_status acl_decode_rule(uint32_t family, const acl_stored_entry& entry, acl_rule& rule) {
    return (family == ACL_FAMILY_IPV6 ? decode<acl_ipv6_entry> : decode<acl_ipv4_entry>)(acl_entry_descriptor(family),
                                                                                         entry, rule);
}
