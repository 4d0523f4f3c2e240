/// Packet filter: whether the kernel has the rules that the agent's access lists make.
///
/// An addition for platforms on which somebody else may change the packet filter. A platform that cannot look into it
/// answers ENOTSUP; the agent then relies on what it has loaded itself.
#ifndef PLATFORM_PACKET_FILTER_H
#define PLATFORM_PACKET_FILTER_H

#include <stddef.h>
#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

/// A table in the network namespace of a VRF, and what it should contain.
struct packet_filter_table {
    const char* vrf_name;  ///< without prefix
    uint32_t family;       ///< ACL_FAMILY_IPV4 or ACL_FAMILY_IPV6 (platform/acl_service.h)
    const char* table;
    /// nftables commands that make the table in a namespace without any. Tables that should be equal share one text; it is
    /// then carried out once. Null: the table should let everything pass, or not exist.
    const char* commands;
};

enum packet_filter_verdict {
    PACKET_FILTER_AS_WANTED,
    PACKET_FILTER_DIFFERS,
    PACKET_FILTER_UNKNOWN,  ///< the commands cannot be carried out, or the VRF has no namespace
};

struct packet_filter_finding {
    enum packet_filter_verdict verdict;
    uint32_t present;  ///< rules in the kernel's table
    uint32_t wanted;   ///< rules that the commands make
};

/// Compares tables exactly: their chains and rules, but not counters. Stores one finding for each table. Tables of one VRF
/// should be neighbours. Nothing is changed. ETIMEDOUT if it took too long; the findings are then undefined.
platform_status packet_filter_compare(const struct packet_filter_table* tables, size_t count,
                                      struct packet_filter_finding* findings);

#ifdef __cplusplus
}
#endif

#endif
