/// The responder's local sockets.
#ifndef OPENSSH_SESSIONS_SOCKETS_H
#define OPENSSH_SESSIONS_SOCKETS_H

#include <string>

namespace openssh {

/// Listens on a socket of type SOCK_SEQPACKET to which only this user, which is root, may connect. Replaces a socket
/// left over from an earlier run. Returns -1 with errno set on failure.
int open_listener(const std::string& path);

/// Accepts a connection and makes it non-blocking; returns -1 if there is none.
int accept_connection(int listener);

/// Removes the sockets whose paths begin with this prefix.
void remove_sockets(const std::string& prefix);

}  // namespace openssh

#endif
