#include "openssh/reporter/sender.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "openssh/reporter/report_format.h"

namespace openssh {

namespace {

/// Higher than the descriptors that sshd assigns itself.
constexpr int lowest_descriptor = 100;
/// How long to wait if the responder is busy. After the first time-out the process never waits again.
constexpr int patience_milliseconds = 20;

/// Opened by sshd's monitor and inherited by its children, which may be unable to reach the socket's path.
int connection = -1;
bool is_patient = true;
pid_t first_process = 0;
pid_t start_time_owner = 0;
uint64_t start_time = 0;

int open_socket() {
    const int low = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int high = low < 0 ? -1 : fcntl(low, F_DUPFD_CLOEXEC, lowest_descriptor);
    if (high < 0) {
        return low;
    }
    close(low);
    return high;
}

bool connect_to_responder() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, report_socket_path, std::strlen(report_socket_path));
    if (connection < 0) {
        connection = open_socket();
    }
    return connection >= 0 && connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

/// Field 22 of /proc/self/stat; the name in parentheses is field 2.
uint64_t read_start_time() {
    constexpr int fields_between = 20;
    char text[512];
    const int file = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    const ssize_t length = file < 0 ? -1 : read(file, text, sizeof(text) - 1);
    if (file >= 0) {
        close(file);
    }
    text[std::max<ssize_t>(length, 0)] = '\0';
    const char* place = std::strrchr(text, ')');
    for (int i = 0; i < fields_between && place != nullptr; ++i) {
        place = std::strchr(place + 1, ' ');
    }
    return place != nullptr ? std::strtoull(place, nullptr, 10) : 0;
}

uint64_t own_start_time() {
    if (start_time_owner != getpid()) {
        start_time_owner = getpid();
        first_process = first_process != 0 ? first_process : start_time_owner;
        start_time = read_start_time();
    }
    return start_time;
}

bool try_to_send(const msghdr& message) {
    return sendmsg(connection, &message, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

/// A restarted responder has a new socket under the same path.
void send_message(const msghdr& message) {
    if ((connection < 0 && !connect_to_responder()) || try_to_send(message)) {
        return;
    }
    if (errno == EAGAIN && is_patient) {
        pollfd room = {.fd = connection, .events = POLLOUT, .revents = 0};
        is_patient = poll(&room, 1, patience_milliseconds) > 0 && try_to_send(message);
    } else if ((errno == ECONNREFUSED || errno == ENOTCONN || errno == ECONNRESET) && connect_to_responder()) {
        try_to_send(message);
    }
}

}  // namespace

void send_report(std::string_view written) noexcept {
    const int error = errno;
    while (!written.empty() && (written.back() == '\n' || written.back() == '\r')) {
        written.remove_suffix(1);
    }
    report_header header;
    header.start_time = own_start_time();
    header.forked_from = getpid() != first_process ? static_cast<uint32_t>(first_process) : 0;
    iovec pieces[2] = {
        {.iov_base = &header, .iov_len = sizeof(header)},
        {.iov_base = const_cast<char*>(written.data()), .iov_len = std::min(written.size(), longest_reported_line)}};
    msghdr message = {};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    send_message(message);
    errno = error;
}

}  // namespace openssh
