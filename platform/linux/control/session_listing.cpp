#include "linux/control/session_listing.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <utility>

#include "common/file_descriptor.h"
#include "common/text.h"

namespace {

using listing_clock = std::chrono::steady_clock;

/// How long a call waits for a list. A responder that has nothing else to do needs less for a hundred sessions.
constexpr int moment_milliseconds = 20;

/// Many times the responder's limit on sessions.
constexpr uint32_t most_rows = 1U << 20U;

constexpr char no_answer[] = "the service ssh_session_responder does not answer";

struct listing_state {
    std::string socket_path = session_list_socket;
    std::chrono::milliseconds patience{5000};
    uint64_t number = 0;  ///< of the newest list
    int socket = -1;      ///< while its answer is awaited
    listing_clock::time_point end;
    /// The newest list that is complete. Kept while callers are to ask for it again.
    session_listing last;
    size_t waiting_callers = 0;
};

listing_state state;

int connect_to_responder() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (state.socket_path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::copy(state.socket_path.begin(), state.socket_path.end(), address.sun_path);
    file_descriptor descriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // Connecting does not wait: a responder whose queue is full does not answer either.
    return descriptor.get() >= 0 &&
                   connect(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0
               ? descriptor.release()
               : -1;
}

/// Receives the head and the descriptor of the rows, which is -1 if none came with it.
ssize_t receive(int socket, session_list_head& head, int& rows) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec text = {.iov_base = &head, .iov_len = sizeof(head)};
    msghdr message = {};
    message.msg_iov = &text;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    rows = -1;
    const ssize_t length = recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT | MSG_TRUNC);
    const cmsghdr* passed = length >= 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (passed != nullptr && passed->cmsg_level == SOL_SOCKET && passed->cmsg_type == SCM_RIGHTS) {
        std::memcpy(&rows, CMSG_DATA(passed), sizeof(rows));
    }
    return length;
}

template <size_t size>
void terminate(char (&field)[size]) {
    field[size - 1] = '\0';
}

/// Makes sure that the texts end within their fields.
void terminate_texts(session_list_row& row) {
    terminate(row.vrf);
    terminate(row.user);
    terminate(row.host);
    terminate(row.method);
    terminate(row.key_type);
    terminate(row.key_fingerprint);
    terminate(row.kex);
    terminate(row.host_key);
    terminate(row.in_cipher);
    terminate(row.out_cipher);
    terminate(row.in_mac);
    terminate(row.out_mac);
    row.terminal_count = std::min(row.terminal_count, session_list_terminals);
}

/// Reads the rows from their memory file, which never waits. Returns null if it is too short.
std::shared_ptr<const std::vector<session_list_row>> read_rows(int file, const session_list_head& head) {
    auto rows = std::make_shared<std::vector<session_list_row>>(head.count);
    auto* bytes = reinterpret_cast<char*>(rows->data());
    const size_t size = rows->size() * sizeof(session_list_row);
    for (size_t done = 0; done < size;) {
        const ssize_t length = pread(file, bytes + done, size - done, static_cast<off_t>(done));
        if (length <= 0) {
            return nullptr;
        }
        done += static_cast<size_t>(length);
    }
    std::for_each(rows->begin(), rows->end(), terminate_texts);
    return rows;
}

bool is_readable(const session_list_head& head, ssize_t length) {
    return length == static_cast<ssize_t>(sizeof(head)) && head.magic == session_list_magic &&
           head.row_size == sizeof(session_list_row) && head.count <= most_rows;
}

void finish(const std::string& problem, std::shared_ptr<const std::vector<session_list_row>> rows) {
    if (state.socket >= 0) {
        close(std::exchange(state.socket, -1));
    }
    state.last = {.number = state.number, .is_complete = true, .problem = problem, .rows = std::move(rows)};
}

/// Takes the answer if it has arrived, and gives up when it takes too long.
void take_answer() {
    session_list_head head = {};
    int rows_descriptor = -1;
    const ssize_t length = receive(state.socket, head, rows_descriptor);
    const file_descriptor rows_file(rows_descriptor);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
        if (listing_clock::now() >= state.end) {
            finish(no_answer, nullptr);
        }
        return;
    }
    if (length <= 0) {
        finish(no_answer, nullptr);
        return;
    }
    if (!is_readable(head, length) || rows_file.get() < 0) {
        finish("the service ssh_session_responder is of another version; it has not been restarted since an update",
               nullptr);
        return;
    }
    auto rows = read_rows(rows_file.get(), head);
    finish(rows == nullptr ? no_answer : "", std::move(rows));
}

session_listing waiting_listing() {
    return {.number = state.number, .is_complete = false, .problem = {}, .rows = nullptr};
}

/// The rows are freed when the last caller that has had to ask again has received them.
session_listing hand_over() {
    session_listing result = state.last;
    if (state.waiting_callers <= 1) {
        state.last.rows = nullptr;
        state.waiting_callers = 0;
    } else {
        --state.waiting_callers;
    }
    return result;
}

/// Without rows and without a problem, all callers that were waiting for the list have received it.
bool has_list(uint64_t number) {
    return state.last.number >= number && (state.last.rows != nullptr || !state.last.problem.empty());
}

}  // namespace

session_listing session_listing_begin() {
    if (state.socket < 0) {
        ++state.number;
        state.end = listing_clock::now() + state.patience;
        state.socket = connect_to_responder();
        if (state.socket < 0) {
            finish(std::string(no_answer) + ": " + std::strerror(errno), nullptr);
            return state.last;
        }
    }
    pollfd answer = {.fd = state.socket, .events = POLLIN, .revents = 0};
    poll(&answer, 1, moment_milliseconds);
    take_answer();
    if (state.socket < 0) {
        session_listing result = state.last;
        if (state.waiting_callers == 0) {
            state.last.rows = nullptr;
        }
        return result;
    }
    ++state.waiting_callers;
    return waiting_listing();
}

session_listing session_listing_follow(uint64_t number) {
    if (state.socket >= 0) {
        take_answer();
    }
    if (has_list(number)) {
        return hand_over();
    }
    return state.socket >= 0 ? waiting_listing() : session_listing_begin();
}

void session_listing_reset(const std::string& socket_path, unsigned patience) {
    if (state.socket >= 0) {
        close(state.socket);
    }
    state = {};
    state.socket_path = socket_path;
    state.patience = std::chrono::milliseconds(patience);
}
