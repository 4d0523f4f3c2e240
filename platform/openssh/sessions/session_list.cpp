#include "openssh/sessions/session_list.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/file_descriptor.h"
#include "openssh/sessions/discovery.h"

namespace openssh {

namespace {

constexpr int64_t milliseconds = 1000;

template <size_t size>
void copy_text(char (&to)[size], const char* from) {
    set_field(to, std::string_view(from));
}

int64_t wall_clock(int64_t boot_time, uint64_t seconds) {
    return (boot_time + static_cast<int64_t>(seconds) * milliseconds) / milliseconds;
}

/// A user who has several terminals is as idle as on the one used last.
void add_terminal(session_list_row& row, const session_table& table, uint32_t number) {
    row.terminals[row.terminal_count++] = number;
    const int64_t idle = table.processes.idle_time_of_terminal(number);
    if (idle >= 0 && (row.idle == session_list_no_idle_time || idle < row.idle)) {
        row.idle = idle;
    }
}

void add_terminals(session_list_row& row, const session_table& table, const session_facts& facts) {
    static_assert(session_list_terminals >= most_channels);
    row.idle = session_list_no_idle_time;
    for (const channel_facts& channel : facts.channels) {
        if (channel.state != channel_unused && channel.terminal != no_terminal) {
            add_terminal(row, table, channel.terminal);
        }
    }
}

session_list_row row_of_session(const session_table& table, const session_facts& facts, int64_t boot_time) {
    session_list_row row = {};
    row.start_time = facts.start_time;
    row.pid = facts.pid;
    row.session_id = facts.session_id;
    row.state = session_list_established;
    row.since = facts.login.time == 0 ? 0 : wall_clock(boot_time, facts.login.time);
    row.port = facts.login.port;
    add_terminals(row, table, facts);
    copy_text(row.vrf, facts.login.vrf);
    copy_text(row.user, facts.user);
    copy_text(row.host, facts.host);
    copy_text(row.method, facts.method);
    copy_text(row.key_type, facts.login.key_type);
    copy_text(row.key_fingerprint, facts.login.key_fingerprint);
    copy_text(row.kex, facts.algorithms.kex);
    copy_text(row.host_key, facts.algorithms.host_key);
    copy_text(row.in_cipher, facts.algorithms.in_cipher);
    copy_text(row.out_cipher, facts.algorithms.out_cipher);
    copy_text(row.in_mac, facts.algorithms.in_mac);
    copy_text(row.out_mac, facts.algorithms.out_mac);
    return row;
}

session_list_state state_of(const unlisted_server& server) {
    if (!server.is_at_login) {
        return session_list_unrecorded;
    }
    return server.has_user ? session_list_authenticating : session_list_connecting;
}

/// What the kernel and the process's title say. Only root's sshd can have set the title.
session_list_row row_of_unlisted(const session_table& table, const unlisted_server& server, int64_t boot_time) {
    const auto ticks = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
    session_list_row row = {};
    row.start_time = server.process.start_time;
    row.pid = server.pid;
    row.state = state_of(server);
    row.since = wall_clock(boot_time, server.process.start_time / ticks);
    row.idle = session_list_no_idle_time;
    peer_address peer;
    const file_descriptor process(table.processes.open(server.pid));
    if (process.get() >= 0 && table.processes.peer_of(process.get(), server.pid, peer)) {
        copy_text(row.host, peer.text);
        row.port = peer.port;
    }
    copy_text(row.vrf, table.processes.vrf_of(server.pid).c_str());
    copy_text(row.user, server.user.c_str());
    return row;
}

/// Returns -1 with errno set on failure.
int make_memory_file(const std::vector<session_list_row>& rows) {
    file_descriptor file(memfd_create("session_list", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    const size_t size = rows.size() * sizeof(session_list_row);
    const auto* bytes = reinterpret_cast<const char*>(rows.data());
    for (size_t done = 0; file.get() >= 0 && done < size;) {
        const ssize_t written = write(file.get(), bytes + done, size - done);
        if (written <= 0) {
            return -1;
        }
        done += static_cast<size_t>(written);
    }
    if (file.get() < 0 ||
        fcntl(file.get(), F_ADD_SEALS, F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) != 0) {
        return -1;
    }
    return file.release();
}

}  // namespace

std::vector<session_list_row> list_sessions(session_table& table, int64_t boot_time) {
    std::vector<session_list_row> rows;
    rows.reserve(table.sessions.size());
    for (auto& [pid, session] : table.sessions) {
        if (session.facts.kind == session_kind::incoming && is_alive(session)) {
            rows.push_back(row_of_session(table, current_facts(table, session), boot_time));
        }
    }
    for (const unlisted_server& server : find_unlisted_servers(table)) {
        rows.push_back(row_of_unlisted(table, server, boot_time));
    }
    return rows;
}

int64_t boot_time_now() {
    constexpr int64_t nanoseconds = 1'000'000;
    timespec wall = {};
    timespec boot = {};
    clock_gettime(CLOCK_REALTIME, &wall);
    clock_gettime(CLOCK_BOOTTIME, &boot);
    return (wall.tv_sec - boot.tv_sec) * milliseconds + (wall.tv_nsec - boot.tv_nsec) / nanoseconds;
}

int send_session_list(int client, const std::vector<session_list_row>& rows) {
    const file_descriptor file(make_memory_file(rows));
    if (file.get() < 0) {
        return errno;
    }
    session_list_head head = {
        .magic = session_list_magic, .row_size = sizeof(session_list_row), .count = static_cast<uint32_t>(rows.size())};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec text = {.iov_base = &head, .iov_len = sizeof(head)};
    msghdr message = {};
    message.msg_iov = &text;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* passed = CMSG_FIRSTHDR(&message);
    passed->cmsg_level = SOL_SOCKET;
    passed->cmsg_type = SCM_RIGHTS;
    passed->cmsg_len = CMSG_LEN(sizeof(int));
    const int number = file.get();
    std::memcpy(CMSG_DATA(passed), &number, sizeof(number));
    return sendmsg(client, &message, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0 ? 0 : errno;
}

}  // namespace openssh
