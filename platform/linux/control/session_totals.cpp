#include "linux/control/session_totals.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>

#include "common/file_descriptor.h"

namespace {

constexpr int patience_milliseconds = 2000;

/// Connecting does not wait: a responder whose queue is full does not answer either.
bool exchange(int descriptor, const sockaddr_un& address, session_totals& totals) {
    pollfd answer = {descriptor, POLLIN, 0};
    return connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
           poll(&answer, 1, patience_milliseconds) > 0 &&
           recv(descriptor, &totals, sizeof(totals), MSG_TRUNC) == static_cast<ssize_t>(sizeof(totals));
}

}  // namespace

std::optional<session_totals> control_ask_session_totals(std::string_view socket_path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof(address.sun_path)) {
        return std::nullopt;
    }
    std::copy(socket_path.begin(), socket_path.end(), address.sun_path);
    const file_descriptor descriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    session_totals totals;
    return descriptor.get() >= 0 && exchange(descriptor.get(), address, totals) ? std::optional(totals) : std::nullopt;
}
