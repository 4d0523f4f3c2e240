#include "linux/control/peer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <vector>

platform_status control_peer_read(int fd, control_peer& peer) {
    ucred credentials = {};
    socklen_t size = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return static_cast<platform_status>(errno);
    }
    peer = {credentials.pid, credentials.uid, credentials.gid};
    return PLATFORM_OK;
}

namespace {

/// The peer's supplementary groups; empty if the kernel does not report them.
std::vector<gid_t> supplementary_groups(int fd) {
    std::vector<gid_t> groups(64);
    for (;;) {
        auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        const bool told = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0;
        if (!told && errno != ERANGE) {
            return {};
        }
        groups.resize(size / sizeof(gid_t));
        if (told) {
            return groups;
        }
    }
}

}  // namespace

bool control_peer_admit(int fd, control_peer& peer, const control_groups& groups) {
    if (peer.uid == 0) {
        return true;
    }
    std::vector<gid_t> memberships = supplementary_groups(fd);
    memberships.push_back(peer.gid);
    const auto is_member = [&memberships](const std::optional<gid_t>& group) {
        return group.has_value() && std::find(memberships.begin(), memberships.end(), *group) != memberships.end();
    };
    peer.administrates = is_member(groups.administrators);
    return is_member(groups.readers);
}

bool control_peer_may_change(const control_peer& peer) {
    return peer.uid == 0 || peer.administrates;
}
