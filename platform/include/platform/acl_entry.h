/// Entries of access lists as the ACL service delivers them, in the native layout of its record schemas.
///
/// Port-like conditions carry an operator: 0 none, 1 equal, 2 greater, 3 less, 4 not equal, 5 range (first to second
/// value). The DSCP operator has other values, see the field.
#ifndef PLATFORM_ACL_ENTRY_H
#define PLATFORM_ACL_ENTRY_H

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

/// Record type `ipv4_acl_edm_ace`. Addresses and wildcard (inverse) masks are in network byte order.
struct acl_ipv4_entry {
    uint32_t SequenceNumber;
    int32_t Grant;  ///< acl_action_; its name is acl_service_action_name's
    uint16_t ProtocolOperator;
    uint16_t Protocol;
    uint32_t SourceAddress;
    uint32_t SourceAddressMask;
    uint32_t DestinationAddress;
    uint32_t DestinationAddressMask;
    int32_t SourceOperator;
    uint16_t SourcePort1;
    uint16_t SourcePort2;
    int32_t DestinationOperator;
    uint16_t DestinationPort1;
    uint16_t DestinationPort2;
    int32_t LogOption;  ///< acl_log_type_
    char* CounterName;  ///< null or empty: no counter
    uint32_t DSCPPresent;
    uint8_t DSCP;
    uint8_t DSCP2;
    uint8_t DSCPOperator;      ///< 2 greater, 3 less, 4 not equal, 5 range, anything else equal
    int32_t TCPFlagsOperator;  ///< acl_tcpflags_operator_; 1 and 2 match
    uint8_t TCPFlags;          ///< FIN 1, SYN 2, RST 4, PSH 8, ACK 16, URG 32
    uint8_t TCPFlagsMask;
    int32_t PacketLengthOperator;
    uint16_t PacketLength1;
    uint16_t PacketLength2;
    int32_t TTLOperator;
    uint16_t TTL1;
    uint16_t TTL2;
    int32_t FragmentOffsetOperator;
    uint16_t FragmentOffset1;
    uint16_t FragmentOffset2;
};

/// Record type `ipv6_acl_edm_ace`. Masks are network masks of 128 bits.
struct acl_ipv6_entry {
    uint32_t SequenceNumber;
    int32_t IsPacketAllowOrDeny;
    uint16_t IsProtocolOperator;
    uint32_t IsIPV6ProtocolType;
    uint8_t IsSourceAddressInNumbers[16];
    uint32_t IsSourceAddressPrefixLength;
    uint8_t SourceMask[16];
    uint8_t IsDestinationAddressInNumbers[16];
    uint32_t IsDestinationAddressPrefixLength;
    uint8_t DestinationMask[16];
    int32_t IsSourceOperator;
    uint16_t IsSourcePort1;
    uint16_t IsSourcePort2;
    int32_t IsDestinationOperator;
    uint16_t IsDestinationPort1;
    uint16_t IsDestinationPort2;
    int32_t IsLogOption;
    char* CounterName;
    int32_t IsTCPBitsOperator;
    uint8_t IsTCPBits;
    uint8_t IsTCPBitsMask;
    uint32_t IsDSCPPresent;
    uint8_t DSCPOperator;
    uint8_t IsDSCPValu;
    uint8_t IsDSCPValu2;
    int32_t IsPacketLengthOperator;
    uint16_t IsPacketLengthStart;
    uint16_t IsPacketLengthEnd;
    int32_t IsTimeToLiveOperator;
    uint16_t IsTimeToLiveStart;
    uint16_t IsTimeToLiveEnd;
};

/// Full schemas of both records (record_codec.h; A is an IPv4 address of 4 bytes, "16xC" sixteen bytes).
#define ACL_IPV4_ENTRY_SCHEMA                                                                                         \
    "$1={SequenceNumber}D{Grant}[acl_action_]e{ProtocolOperator}I{Protocol}I{SourceAddress}A{SourceAddressMask}A"     \
    "{DestinationAddress}A{DestinationAddressMask}A{SourceOperator}[acl_port_operator_]e{SourcePort1}I{SourcePort2}I" \
    "{DestinationOperator}[acl_port_operator_]e{DestinationPort1}I{DestinationPort2}I{LogOption}[acl_log_type_]e"     \
    "{CounterName}s{DSCPPresent}b{DSCP}C{DSCP2}C{DSCPOperator}C{TCPFlagsOperator}[acl_tcpflags_operator_]e"           \
    "{TCPFlags}C{TCPFlagsMask}C{PacketLengthOperator}[acl_port_operator_]e{PacketLength1}I{PacketLength2}I"           \
    "{TTLOperator}[acl_port_operator_]e{TTL1}I{TTL2}I{FragmentOffsetOperator}[acl_port_operator_]e"                   \
    "{FragmentOffset1}I{FragmentOffset2}I;"

#define ACL_IPV6_ENTRY_SCHEMA                                                                                         \
    "$1={SequenceNumber}D{IsPacketAllowOrDeny}[acl_action_]e{IsProtocolOperator}I{IsIPV6ProtocolType}D"               \
    "{IsSourceAddressInNumbers}16xC{IsSourceAddressPrefixLength}D{SourceMask}16xC{IsDestinationAddressInNumbers}16xC" \
    "{IsDestinationAddressPrefixLength}D{DestinationMask}16xC{IsSourceOperator}[acl_port_operator_]e"                 \
    "{IsSourcePort1}I{IsSourcePort2}I{IsDestinationOperator}[acl_port_operator_]e{IsDestinationPort1}I"               \
    "{IsDestinationPort2}I{IsLogOption}[acl_log_type_]e{CounterName}s"                                                \
    "{IsTCPBitsOperator}[acl_tcpflags_operator_]e{IsTCPBits}C{IsTCPBitsMask}C{IsDSCPPresent}b{DSCPOperator}C"         \
    "{IsDSCPValu}C{IsDSCPValu2}C{IsPacketLengthOperator}[acl_port_operator_]e{IsPacketLengthStart}I"                  \
    "{IsPacketLengthEnd}I{IsTimeToLiveOperator}[acl_port_operator_]e{IsTimeToLiveStart}I{IsTimeToLiveEnd}I;"

#ifdef __cplusplus
}
#endif

#endif
