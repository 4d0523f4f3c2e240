/// The peer of a control connection.
#ifndef LINUX_CONTROL_PEER_H
#define LINUX_CONTROL_PEER_H

#include <sys/types.h>

#include <optional>

#include "platform/status.h"

struct control_peer {
    pid_t pid;
    uid_t uid;
    gid_t gid;
};

/// Asks the kernel who connected; the credentials are those at the time of the connection.
platform_status control_peer_read(int fd, control_peer& peer);

/// Whether the peer may use the socket: root, or a member of `group`, which may be its primary or a supplementary group.
/// Without a group, only root may use it.
bool control_peer_allowed(int fd, const control_peer& peer, std::optional<gid_t> group);

#endif
