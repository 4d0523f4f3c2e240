/// Entries of access lists as the ACL service delivers them, in the native layout of its record schemas.
///
/// Each family's fields are listed once; the list makes the structure and both schemas. Each condition on a number has one
/// row, `acl_conditions`, which names its fields in each family. All code that reads, writes or checks conditions uses
/// these rows.
#ifndef PLATFORM_ACL_ENTRY_H
#define PLATFORM_ACL_ENTRY_H

#include <stddef.h>
#include <stdint.h>

#include "platform/record_codec.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    ACL_PROTOCOL_EQUAL = 1,  ///< protocol operator: only the entry's protocol matches
    ACL_PROTOCOL_TCP = 6,    ///< IANA protocol number
    ACL_PROTOCOL_ANY_IPV4 = 512,
    ACL_PROTOCOL_ANY_IPV6 = 513,
    ACL_LOG = 1,          ///< log option
    ACL_ENTRY_AREA = 472  ///< bytes that hold an entry of either family
};

/// Operators of conditions, as entries carry them. A range goes from the first value to the second. For DSCP,
/// every code other than ACL_GT to ACL_RANGE means ACL_EQ.
enum acl_operator { ACL_NONE, ACL_EQ, ACL_GT, ACL_LT, ACL_NE, ACL_RANGE, ACL_OPERATOR_COUNT };

/// Conditions on numbers, in the order of the line notation.
enum acl_condition_id {
    ACL_SOURCE_PORT,
    ACL_DESTINATION_PORT,
    ACL_DSCP,
    ACL_TTL,  ///< hop limit in IPv6
    ACL_PACKET_LENGTH,
    ACL_FRAGMENT_OFFSET,  ///< IPv4 only
    ACL_CONDITION_COUNT
};

typedef uint8_t acl_ipv6_octets[16];

// clang-format off

// Kinds of fields: type in the structure, enumeration and letter in the schemas (record_codec.h).
#define ACL_KIND_number32(take) take(uint32_t, "", "D")
#define ACL_KIND_number16(take) take(uint16_t, "", "I")
#define ACL_KIND_number8(take) take(uint8_t, "", "C")
#define ACL_KIND_boolean(take) take(uint32_t, "", "b")
#define ACL_KIND_text(take) take(char*, "", "s")
#define ACL_KIND_ipv4_address(take) take(uint32_t, "", "A")
#define ACL_KIND_ipv6_address(take) take(acl_ipv6_octets, "", "16xC")
#define ACL_KIND_action(take) take(int32_t, "[acl_action_]", "e")
#define ACL_KIND_operation(take) take(int32_t, "[acl_port_operator_]", "e")
#define ACL_KIND_log_type(take) take(int32_t, "[acl_log_type_]", "e")
#define ACL_KIND_flags_operation(take) take(int32_t, "[acl_tcpflags_operator_]", "e")

/// Record type `ipv4_acl_edm_ace`. Addresses and wildcard (inverse) masks are in network byte order. The action's name is
/// acl_service_action_name's. A null or empty counter name means no counter. TCP flags match with operators 1 and 2; the
/// flags are FIN 1, SYN 2, RST 4, PSH 8, ACK 16, URG 32.
#define ACL_IPV4_ENTRY_FIELDS(field)                                                                                   \
    field(number32, SequenceNumber)                                                                                    \
    field(action, Grant)                                                                                               \
    field(number16, ProtocolOperator) field(number16, Protocol)                                                        \
    field(ipv4_address, SourceAddress) field(ipv4_address, SourceAddressMask)                                          \
    field(ipv4_address, DestinationAddress) field(ipv4_address, DestinationAddressMask)                                \
    field(operation, SourceOperator) field(number16, SourcePort1) field(number16, SourcePort2)                         \
    field(operation, DestinationOperator) field(number16, DestinationPort1) field(number16, DestinationPort2)          \
    field(log_type, LogOption)                                                                                         \
    field(text, CounterName)                                                                                           \
    field(boolean, DSCPPresent) field(number8, DSCP) field(number8, DSCP2) field(number8, DSCPOperator)                \
    field(flags_operation, TCPFlagsOperator) field(number8, TCPFlags) field(number8, TCPFlagsMask)                     \
    field(operation, PacketLengthOperator) field(number16, PacketLength1) field(number16, PacketLength2)               \
    field(operation, TTLOperator) field(number16, TTL1) field(number16, TTL2)                                          \
    field(operation, FragmentOffsetOperator) field(number16, FragmentOffset1) field(number16, FragmentOffset2)

/// Record type `ipv6_acl_edm_ace`. Masks are network masks of 128 bits; all else is as in IPv4.
#define ACL_IPV6_ENTRY_FIELDS(field)                                                                                   \
    field(number32, SequenceNumber)                                                                                    \
    field(action, IsPacketAllowOrDeny)                                                                                 \
    field(number16, IsProtocolOperator) field(number32, IsIPV6ProtocolType)                                            \
    field(ipv6_address, IsSourceAddressInNumbers) field(number32, IsSourceAddressPrefixLength)                         \
    field(ipv6_address, SourceMask)                                                                                    \
    field(ipv6_address, IsDestinationAddressInNumbers) field(number32, IsDestinationAddressPrefixLength)               \
    field(ipv6_address, DestinationMask)                                                                               \
    field(operation, IsSourceOperator) field(number16, IsSourcePort1) field(number16, IsSourcePort2)                   \
    field(operation, IsDestinationOperator) field(number16, IsDestinationPort1)                                        \
    field(number16, IsDestinationPort2)                                                                                \
    field(log_type, IsLogOption)                                                                                       \
    field(text, CounterName)                                                                                           \
    field(flags_operation, IsTCPBitsOperator) field(number8, IsTCPBits) field(number8, IsTCPBitsMask)                  \
    field(boolean, IsDSCPPresent)                                                                                      \
    field(number8, DSCPOperator) field(number8, IsDSCPValu) field(number8, IsDSCPValu2)                                \
    field(operation, IsPacketLengthOperator) field(number16, IsPacketLengthStart)                                      \
    field(number16, IsPacketLengthEnd)                                                                                 \
    field(operation, IsTimeToLiveOperator) field(number16, IsTimeToLiveStart) field(number16, IsTimeToLiveEnd)

#define ACL_TYPE_OF(type, enumeration, letter) type
#define ACL_FULL_LETTER_OF(type, enumeration, letter) enumeration letter
#define ACL_LETTER_OF(type, enumeration, letter) letter

#define ACL_MEMBER(kind, name) ACL_KIND_##kind(ACL_TYPE_OF) name; // NOLINT(bugprone-macro-parentheses)
#define ACL_FULL_SCHEMA(kind, name) "{" #name "}" ACL_KIND_##kind(ACL_FULL_LETTER_OF)
#define ACL_COMPACT_SCHEMA(kind, name) ACL_KIND_##kind(ACL_LETTER_OF)

struct acl_ipv4_entry { ACL_IPV4_ENTRY_FIELDS(ACL_MEMBER) };
struct acl_ipv6_entry { ACL_IPV6_ENTRY_FIELDS(ACL_MEMBER) };

#define ACL_IPV4_ENTRY_SCHEMA "$1=" ACL_IPV4_ENTRY_FIELDS(ACL_FULL_SCHEMA) ";"
#define ACL_IPV6_ENTRY_SCHEMA "$1=" ACL_IPV6_ENTRY_FIELDS(ACL_FULL_SCHEMA) ";"
#define ACL_IPV4_ENTRY_COMPACT_SCHEMA "$1=" ACL_IPV4_ENTRY_FIELDS(ACL_COMPACT_SCHEMA) ";"
#define ACL_IPV6_ENTRY_COMPACT_SCHEMA "$1=" ACL_IPV6_ENTRY_FIELDS(ACL_COMPACT_SCHEMA) ";"

// clang-format on

/// An operator's names; its code is the row's position.
struct acl_operator_row {
    uint32_t code;
    const char* name;  ///< in the JSON form
    const char* word;  ///< in the line notation; null when it has none
};

/// A number of 1, 2 or 4 bytes in an entry. All zero when the family has no such field.
struct acl_field {
    const char* name;
    size_t offset;
    size_t width;
};

/// The fields of a condition in one family. `present` tells whether the condition counts; without this field it counts
/// unless its operator is ACL_NONE.
struct acl_condition_fields {
    struct acl_field operation;
    struct acl_field first;
    struct acl_field second;
    struct acl_field present;
};

struct acl_condition_row {
    uint32_t condition;   ///< acl_condition_id, the row's position
    const char* keyword;  ///< option of the line notation; null for ports, which follow their address there
    uint32_t line_max;    ///< highest number in the line notation
    uint32_t record_max;  ///< highest number in a record
    struct acl_condition_fields ipv4;
    struct acl_condition_fields ipv6;
};

/// A condition on its own; `second` is the upper end of a range.
struct acl_condition {
    int32_t operation;
    uint32_t first;
    uint32_t second;
};

#ifdef __cplusplus
}

inline constexpr acl_operator_row acl_operators[] = {
    {ACL_NONE, "none", nullptr}, {ACL_EQ, "eq", "eq"},  {ACL_GT, "gt", "gt"},
    {ACL_LT, "lt", "lt"},        {ACL_NE, "ne", "neq"}, {ACL_RANGE, "range", "range"},
};

// clang-format off

#define ACL_V4(member) {#member, offsetof(acl_ipv4_entry, member), sizeof(acl_ipv4_entry::member)}
#define ACL_V6(member) {#member, offsetof(acl_ipv6_entry, member), sizeof(acl_ipv6_entry::member)}

/// All code for conditions uses these rows; src/acl/rule_matches.cpp adds the text of each in a rule. A single number that
/// exceeds the packet's field makes nftables refuse the whole list, hence the `record_max` of DSCP and TTL.
inline constexpr acl_condition_row acl_conditions[] = {
    {ACL_SOURCE_PORT, nullptr, 65535, 65535,
     {ACL_V4(SourceOperator), ACL_V4(SourcePort1), ACL_V4(SourcePort2), {}},
     {ACL_V6(IsSourceOperator), ACL_V6(IsSourcePort1), ACL_V6(IsSourcePort2), {}}},
    {ACL_DESTINATION_PORT, nullptr, 65535, 65535,
     {ACL_V4(DestinationOperator), ACL_V4(DestinationPort1), ACL_V4(DestinationPort2), {}},
     {ACL_V6(IsDestinationOperator), ACL_V6(IsDestinationPort1), ACL_V6(IsDestinationPort2), {}}},
    {ACL_DSCP, "dscp", 63, 63,
     {ACL_V4(DSCPOperator), ACL_V4(DSCP), ACL_V4(DSCP2), ACL_V4(DSCPPresent)},
     {ACL_V6(DSCPOperator), ACL_V6(IsDSCPValu), ACL_V6(IsDSCPValu2), ACL_V6(IsDSCPPresent)}},
    {ACL_TTL, "ttl", 255, 255,
     {ACL_V4(TTLOperator), ACL_V4(TTL1), ACL_V4(TTL2), {}},
     {ACL_V6(IsTimeToLiveOperator), ACL_V6(IsTimeToLiveStart), ACL_V6(IsTimeToLiveEnd), {}}},
    {ACL_PACKET_LENGTH, "packet-length", 65535, 65535,
     {ACL_V4(PacketLengthOperator), ACL_V4(PacketLength1), ACL_V4(PacketLength2), {}},
     {ACL_V6(IsPacketLengthOperator), ACL_V6(IsPacketLengthStart), ACL_V6(IsPacketLengthEnd), {}}},
    {ACL_FRAGMENT_OFFSET, "fragment-offset", 8191, 65535,
     {ACL_V4(FragmentOffsetOperator), ACL_V4(FragmentOffset1), ACL_V4(FragmentOffset2), {}},
     {}},
};

// clang-format on

#undef ACL_V4
#undef ACL_V6

constexpr bool acl_rows_are_in_order() {
    for (uint32_t code = 0; code < ACL_OPERATOR_COUNT; code++) {
        if (acl_operators[code].code != code) {
            return false;
        }
    }
    for (uint32_t condition = 0; condition < ACL_CONDITION_COUNT; condition++) {
        if (acl_conditions[condition].condition != condition) {
            return false;
        }
    }
    return true;
}

static_assert(sizeof acl_operators / sizeof *acl_operators == ACL_OPERATOR_COUNT);
static_assert(sizeof acl_conditions / sizeof *acl_conditions == ACL_CONDITION_COUNT);
static_assert(acl_rows_are_in_order());

/// The fields of a condition in one family.
inline const acl_condition_fields& acl_fields_of(const acl_condition_row& row, bool is_ipv6) {
    return is_ipv6 ? row.ipv6 : row.ipv4;
}

/// Whether the family has such a condition.
inline bool acl_family_has(const acl_condition_fields& fields) {
    return fields.operation.width != 0;
}

inline uint32_t acl_field_value(const void* entry, const acl_field& field) {
    const uint8_t* at = static_cast<const uint8_t*>(entry) + field.offset;
    switch (field.width) {
        case sizeof(uint8_t):
            return *at;
        case sizeof(uint16_t):
            return *reinterpret_cast<const uint16_t*>(at);
        default:
            return *reinterpret_cast<const uint32_t*>(at);
    }
}

/// Stores the low bytes of a number.
inline void acl_store_field(void* entry, const acl_field& field, uint32_t value) {
    uint8_t* at = static_cast<uint8_t*>(entry) + field.offset;
    switch (field.width) {
        case sizeof(uint8_t):
            *at = static_cast<uint8_t>(value);
            break;
        case sizeof(uint16_t):
            *reinterpret_cast<uint16_t*>(at) = static_cast<uint16_t>(value);
            break;
        default:
            *reinterpret_cast<uint32_t*>(at) = value;
    }
}

/// Whether the condition's fields in the entry count.
inline bool acl_has_condition(const void* entry, const acl_condition_fields& fields) {
    return acl_family_has(fields) && (fields.present.width == 0 || acl_field_value(entry, fields.present) != 0);
}

/// The condition's fields in an entry of a family that has it.
inline acl_condition acl_read_condition(const void* entry, const acl_condition_fields& fields) {
    return {static_cast<int32_t>(acl_field_value(entry, fields.operation)), acl_field_value(entry, fields.first),
            acl_field_value(entry, fields.second)};
}
#endif

#endif
