/// The packet filter's table that limits new connections to a VRF's server.
///
///     table inet norvo_limits {
///         chain input {
///             type filter hook input priority 10; policy accept;
///             tcp dport { 22, 830 } tcp flags & (fin|syn|rst|ack) == syn
///                 limit rate over 60/minute burst 60 packets counter reject with tcp reset
///         }
///     }
///
/// The chain comes after those of management-plane protection and of the access lists, so what they drop does not count.
#ifndef PLATFORM_COMMON_LIMITS_TABLE_H
#define PLATFORM_COMMON_LIMITS_TABLE_H

#include <cstdint>
#include <string>

inline constexpr char limits_table[] = "norvo_limits";

/// The nftables commands that make the table; `ports` are separated by commas.
std::string limits_table_commands(uint32_t connections_per_minute, const std::string& ports);

#endif
