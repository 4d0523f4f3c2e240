#include "linux/control/session_totals.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace {

constexpr timeval patience = {.tv_sec = 2, .tv_usec = 0};

constexpr std::array<std::string_view, 3> session_trees = {
    "/oper/crypto-ssh/gl/session_xml/",
    "/oper/crypto-ssh/gl/sshddata/",
    "/oper/crypto-ssh/client/",
};

bool exchange(int descriptor, const sockaddr_un& address, session_totals& totals) {
    return setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)) == 0 &&
           setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience)) == 0 &&
           connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
           recv(descriptor, &totals, sizeof(totals), MSG_TRUNC) == static_cast<ssize_t>(sizeof(totals));
}

}  // namespace

bool control_is_session_path(std::string_view path) {
    return std::any_of(session_trees.begin(), session_trees.end(),
                       [path](std::string_view tree) { return path.starts_with(tree); });
}

std::optional<session_totals> control_ask_session_totals(std::string_view socket_path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof(address.sun_path)) {
        return std::nullopt;
    }
    std::copy(socket_path.begin(), socket_path.end(), address.sun_path);
    const int descriptor = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return std::nullopt;
    }
    session_totals totals;
    const bool is_answered = exchange(descriptor, address, totals);
    close(descriptor);
    return is_answered ? std::optional(totals) : std::nullopt;
}
