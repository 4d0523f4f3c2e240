/// A TCP connection as the kernel knows it.
///
/// Part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_CONNECTION_H
#define OPENSSH_REPORTER_CONNECTION_H

#include "openssh/reporter/session_facts.h"

namespace openssh {

/// The peer's address, with the zone if it is link-local, and its port. The text is as long as the field that stores it.
struct peer_address {
    char text[sizeof(session_facts::host)] = {};
    uint32_t port = 0;
};

/// Inspects a socket. `peer` and `bytes` may be null. Returns false, with both unchanged, unless it is a connected TCP
/// socket. The zone is the name of the interface in the calling process's network namespace.
bool look_at_socket(int socket_descriptor, peer_address* peer, byte_counters* bytes) noexcept;

/// Inspects the connection of this process, which has at most one.
bool look_at_own_connection(peer_address* peer, byte_counters* bytes) noexcept;

}  // namespace openssh

#endif
