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

void put_condition(void* entry, const acl_condition_fields& fields, const acl_condition& from) {
    acl_store_field(entry, fields.operation, static_cast<uint32_t>(from.operation));
    acl_store_field(entry, fields.first, from.first);
    acl_store_field(entry, fields.second, from.second);
    if (fields.present.width != 0) {
        acl_store_field(entry, fields.present, from.operation != ACL_NONE ? 1 : 0);
    }
}

void put_conditions(void* entry, bool is_ipv6, const acl_rule& rule) {
    for (const acl_condition_row& row : acl_conditions) {
        const acl_condition_fields& fields = acl_fields_of(row, is_ipv6);
        if (acl_family_has(fields)) {
            put_condition(entry, fields, rule.conditions[row.condition]);
        }
    }
}

void read_conditions(const void* entry, bool is_ipv6, acl_rule& rule) {
    for (const acl_condition_row& row : acl_conditions) {
        const acl_condition_fields& fields = acl_fields_of(row, is_ipv6);
        if (acl_has_condition(entry, fields)) {
            rule.conditions[row.condition] = acl_read_condition(entry, fields);
        }
    }
}

void put(acl_ipv4_entry& entry, const acl_rule& rule) {
    entry.SequenceNumber = rule.sequence;
    entry.Grant = rule.action;
    entry.ProtocolOperator = rule.any_protocol ? 0 : ACL_PROTOCOL_EQUAL;
    entry.Protocol =
        static_cast<uint16_t>(rule.any_protocol ? static_cast<uint32_t>(ACL_PROTOCOL_ANY_IPV4) : rule.protocol);
    put_address(entry.SourceAddress, entry.SourceAddressMask, rule.source);
    put_address(entry.DestinationAddress, entry.DestinationAddressMask, rule.destination);
    entry.LogOption = rule.log ? ACL_LOG : 0;
    entry.TCPFlagsOperator = rule.tcp_flags_operation;
    entry.TCPFlags = rule.tcp_flags;
    entry.TCPFlagsMask = rule.tcp_flags_mask;
    put_conditions(&entry, false, rule);
}

void put(acl_ipv6_entry& entry, const acl_rule& rule) {
    entry.SequenceNumber = rule.sequence;
    entry.IsPacketAllowOrDeny = rule.action;
    entry.IsProtocolOperator = rule.any_protocol ? 0 : ACL_PROTOCOL_EQUAL;
    entry.IsIPV6ProtocolType = rule.any_protocol ? static_cast<uint32_t>(ACL_PROTOCOL_ANY_IPV6) : rule.protocol;
    put_address(entry.IsSourceAddressInNumbers, entry.SourceMask, entry.IsSourceAddressPrefixLength, rule.source);
    put_address(entry.IsDestinationAddressInNumbers, entry.DestinationMask, entry.IsDestinationAddressPrefixLength,
                rule.destination);
    entry.IsLogOption = rule.log ? ACL_LOG : 0;
    entry.IsTCPBitsOperator = rule.tcp_flags_operation;
    entry.IsTCPBits = rule.tcp_flags;
    entry.IsTCPBitsMask = rule.tcp_flags_mask;
    put_conditions(&entry, true, rule);
}

acl_rule rule_of(const acl_ipv4_entry& entry) {
    acl_rule rule;
    rule.sequence = entry.SequenceNumber;
    rule.action = entry.Grant;
    rule.any_protocol = entry.Protocol == ACL_PROTOCOL_ANY_IPV4;
    rule.protocol = entry.Protocol;
    rule.source = address_of(entry.SourceAddress, entry.SourceAddressMask);
    rule.destination = address_of(entry.DestinationAddress, entry.DestinationAddressMask);
    rule.log = entry.LogOption == ACL_LOG;
    rule.tcp_flags_operation = entry.TCPFlagsOperator;
    rule.tcp_flags = entry.TCPFlags;
    rule.tcp_flags_mask = entry.TCPFlagsMask;
    read_conditions(&entry, false, rule);
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
    rule.log = entry.IsLogOption == ACL_LOG;
    rule.tcp_flags_operation = entry.IsTCPBitsOperator;
    rule.tcp_flags = entry.IsTCPBits;
    rule.tcp_flags_mask = entry.IsTCPBitsMask;
    read_conditions(&entry, true, rule);
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
