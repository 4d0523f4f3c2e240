/// Limits of a server's connections that stock sshd does not support: how many begin in a minute, and how many sessions
/// are open at a time.
///
/// The packet filter of the VRF's network namespace limits new connections (common/limits_table.h), to all ports of the
/// server and in IPv4 and IPv6 together.
///
/// Sessions are counted by the PAM module (aaa_pam/session_limit.h), because only it knows which connections have become
/// sessions, and because they outlive the server.
#ifndef OPENSSH_LIMITS_H
#define OPENSSH_LIMITS_H

#include <string>
#include <vector>

#include "openssh/paths.h"
#include "openssh/server_limits.h"

namespace openssh {

/// The ports to which the limits apply, as nft takes them.
std::string limited_ports(const server_limits& limits);

/// Sets the limits in this process's network namespace. Returns a sentence for each limit that could not be set; the
/// server starts nevertheless.
std::vector<std::string> enforce_limits(const launcher_paths& paths, const server_limits& limits);

/// Removes the table from a network namespace, given by its name. Returns an empty text, also if the namespace or the
/// table no longer exists; otherwise the error. This process may then be in that namespace. Open sessions still
/// count, because they outlive their server.
std::string remove_limits(const launcher_paths& paths, const std::string& network_namespace);

}  // namespace openssh

#endif
