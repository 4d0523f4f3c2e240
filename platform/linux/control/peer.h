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
    bool administrates = false;  ///< is in the group whose members may change the configuration
};

/// The groups of those who may use the socket; nothing for a group that the machine does not have.
struct control_groups {
    std::optional<gid_t> readers;         ///< may read
    std::optional<gid_t> administrators;  ///< may also change, if they are readers, too
};

/// Asks the kernel who connected; the credentials are those at the time of the connection.
platform_status control_peer_read(int fd, control_peer& peer);

/// Whether the peer may use the socket: root, or a member of the readers' group, which may be its primary or a
/// supplementary group; root alone if there is no such group. Sets whether it administrates.
bool control_peer_admit(int fd, control_peer& peer, const control_groups& groups);

/// Whether the peer may change anything.
bool control_peer_may_change(const control_peer& peer);

#endif
