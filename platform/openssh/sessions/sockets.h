/// The responder's local sockets.
#ifndef OPENSSH_SESSIONS_SOCKETS_H
#define OPENSSH_SESSIONS_SOCKETS_H

#include <string>

namespace openssh {

/// Listens on a socket of type SOCK_SEQPACKET to which only this user, which is root, may connect. What is left of an
/// earlier one is replaced. Returns -1 with errno set on failure.
int open_listener(const std::string& path);

/// Accepts a connection, which does not block; -1 if there is none.
int accept_connection(int listener);

/// Removes the sockets whose paths begin like this.
void remove_sockets(const std::string& prefix);

}  // namespace openssh

#endif
