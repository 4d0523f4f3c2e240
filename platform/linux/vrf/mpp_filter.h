/// The packet filter of management-plane protection: one nftables table in each VRF's network namespace.
///
///     table inet norvo_mpp {
///         comment "management-plane protection, 2"
///         flags dormant
///         set blocked_ports {
///             type nf_proto . inet_service
///             elements = { ipv4 . 22, ipv4 . 830, ipv6 . 22, ipv6 . 830 }
///         }
///         chain input {
///             type filter hook input priority -10; policy accept;
///             ct state established accept
///             tcp flags & (fin|syn|rst|ack) == syn meta nfproto . tcp dport @blocked_ports drop
///         }
///     }
///
/// A dormant table filters nothing: the VRF is open. Its set then has all ports, so that blocking the VRF only wakes the
/// table. Blocking and opening a whole VRF delete nothing, because a process that deletes part of a packet filter has to
/// wait for a grace period of the kernel, about 20 milliseconds, and a commit of many settings blocks and opens every
/// VRF. For the same reason there is no command per VRF, which would take longer than everything else; the agent talks
/// to the kernel directly.
///
/// Only the first packet of a connection is matched, by its flags, so existing connections continue. A client whose first
/// packet was dropped sends it again after a second.
///
/// The rule with `ct state` makes the kernel track the namespace's connections, also while the table is dormant. Access
/// lists let established connections through, and the kernel takes only those for established that it has tracked: without
/// tracking from the first server on, the first list of a VRF would cut off every session that is open.
///
/// Every operation is complete when it returns and waits only for the kernel. On failure, `failure` says what failed
/// and why. ENOENT means that the VRF has no network namespace.
#ifndef LINUX_VRF_MPP_FILTER_H
#define LINUX_VRF_MPP_FILTER_H

#include <cstdint>
#include <string>

#include "platform/status.h"

/// A set of services' ports, one bit for each service and address family.
using filter_ports = uint32_t;

inline constexpr filter_ports filter_ssh_ipv4 = 1;
inline constexpr filter_ports filter_ssh_ipv6 = 2;
inline constexpr filter_ports filter_netconf_ipv4 = 4;
inline constexpr filter_ports filter_netconf_ipv6 = 8;
inline constexpr filter_ports filter_all_ports = 15;

/// Creates the table, with these ports blocked. A table of another version under its name is replaced in the same step.
platform_status mpp_filter_make(const std::string& vrf_name, filter_ports blocked, std::string& failure);

/// Makes the table anew, with these ports blocked, whatever the present one contains. Waits for a grace period of the
/// kernel.
platform_status mpp_filter_replace(const std::string& vrf_name, filter_ports blocked, std::string& failure);

/// Makes the table in this process's own namespace, which has none. Returns 0 or an errno value.
int mpp_filter_make_here(filter_ports blocked);

inline constexpr char mpp_filter_table[] = "norvo_mpp";

/// Blocks these ports (at least one) and opens the others; creates the table if the namespace has none, or has another
/// version's.
platform_status mpp_filter_block(const std::string& vrf_name, filter_ports blocked, std::string& failure);

/// Opens all ports; a namespace without the table is open.
platform_status mpp_filter_open(const std::string& vrf_name, std::string& failure);

/// Stores which ports are blocked.
platform_status mpp_filter_blocked(const std::string& vrf_name, filter_ports& blocked, std::string& failure);

/// Whether this process may talk to the kernel's packet filter at all.
platform_status mpp_filter_available(std::string& failure);

#endif
