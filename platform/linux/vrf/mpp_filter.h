/// The packet filter of management-plane protection: one nftables table in each VRF's network namespace.
///
///     table inet norvo_mpp {
///         comment "management-plane protection, 1"
///         flags dormant
///         set service_ports { type inet_service; flags constant; elements = { 22, 830 } }
///         chain input {
///             type filter hook input priority -10; policy accept;
///             tcp flags & (fin|syn|rst|ack) == syn tcp dport @service_ports drop
///         }
///     }
///
/// A dormant table has no effect: the VRF is open. Blocking wakes the table. Neither operation deletes anything,
/// because a process that deletes part of a packet filter has to wait for a grace period of the kernel, about 20
/// milliseconds, and a commit of many settings blocks and opens every VRF. For the same reason there is no command per
/// VRF, which would take longer than everything else; the agent talks to the kernel directly.
///
/// Only the first packet of a connection is matched, by its flags. So existing connections continue, and the kernel
/// need not start to track connections, which would take every older connection for a new one. A client whose first
/// packet was dropped sends it again after a second.
///
/// Every operation is complete when it returns and waits only for the kernel. On failure, `failure` says what failed
/// and why. ENOENT means that the VRF has no network namespace.
#ifndef LINUX_VRF_MPP_FILTER_H
#define LINUX_VRF_MPP_FILTER_H

#include <string>

#include "platform/status.h"

/// Creates the table, blocked or open. A table of another version under its name is replaced in the same step.
platform_status mpp_filter_make(const std::string& vrf_name, bool blocked, std::string& failure);

/// Blocks the services' ports; creates the table if the namespace has none, or has another version's.
platform_status mpp_filter_block(const std::string& vrf_name, std::string& failure);

/// Opens the services' ports; a namespace without the table is open.
platform_status mpp_filter_open(const std::string& vrf_name, std::string& failure);

/// Stores whether the services' ports are blocked.
platform_status mpp_filter_is_blocked(const std::string& vrf_name, bool& blocked, std::string& failure);

/// Whether this process may talk to the kernel's packet filter at all.
platform_status mpp_filter_available(std::string& failure);

#endif
