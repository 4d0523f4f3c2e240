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
/// A dormant table is as good as none: the VRF is open. Blocking wakes it. Nothing is deleted for either, because the
/// kernel lets whoever deletes something of a packet filter wait for a grace period, some 20 milliseconds, and a commit of
/// many settings blocks and opens every VRF. For the same reason the kernel is spoken to directly; a command for each VRF
/// would take longer than all the rest.
///
/// Only the first packet of a connection is looked at, by its flags, so connections that exist live on and the kernel need
/// not begin to track connections, which would take every connection that is older than the tracking for a new one. A
/// client whose first packet was dropped sends it again after a second.
///
/// Every operation is done when it returns, never waits for anything but the kernel, and on failure stores what could not
/// be done and why in `failure`. ENOENT says that the VRF has no network namespace.
#ifndef LINUX_VRF_MPP_FILTER_H
#define LINUX_VRF_MPP_FILTER_H

#include <string>

#include "platform/status.h"

/// Makes the table, blocked or open. What another version has left under its name is replaced in the same step.
platform_status mpp_filter_make(const std::string& vrf_name, bool blocked, std::string& failure);

/// Blocks the services' ports; makes the table when the namespace has none, or another version's.
platform_status mpp_filter_block(const std::string& vrf_name, std::string& failure);

/// Opens the services' ports; a namespace without the table is open.
platform_status mpp_filter_open(const std::string& vrf_name, std::string& failure);

/// Stores whether the services' ports are blocked.
platform_status mpp_filter_is_blocked(const std::string& vrf_name, bool& blocked, std::string& failure);

/// Whether this process may speak to the kernel's packet filter at all.
platform_status mpp_filter_available(std::string& failure);

#endif
