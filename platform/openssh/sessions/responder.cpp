#include "openssh/sessions/responder.h"

#include <dirent.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "openssh/sessions/snapshot.h"
#include "openssh/sessions/state_store.h"

namespace openssh {

namespace {

constexpr size_t most_reports_in_a_row = 256;
constexpr size_t most_askers = 64;
constexpr uint64_t seconds_to_ask = 2;
constexpr int asker_check_milliseconds = 1000;
constexpr int listen_queue = 16;

/// What a descriptor is for.
enum class purpose { reports, stop, listen, process, asker };

struct endpoint {
    purpose use = purpose::stop;
    pid_t pid = 0;       ///< of the session
    uint64_t since = 0;  ///< when the client connected
};

struct responder {
    const responder_options& options;
    session_table& table;
    int events = -1;
    std::map<int, endpoint> endpoints = {};
    std::map<pid_t, int> listeners = {};
    size_t askers = 0;
    bool is_ending = false;
};

void complain(const char* what, const std::string& about) {
    std::fprintf(stderr, "<4>%s %s: %s\n", what, about.c_str(), std::strerror(errno));
}

bool watch(responder& self, int descriptor, const endpoint& what) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    if (epoll_ctl(self.events, EPOLL_CTL_ADD, descriptor, &event) != 0) {
        return false;
    }
    self.endpoints[descriptor] = what;
    return true;
}

void unwatch(responder& self, int descriptor) {
    epoll_ctl(self.events, EPOLL_CTL_DEL, descriptor, nullptr);
    self.endpoints.erase(descriptor);
}

std::string socket_path(const responder& self, pid_t pid) {
    return self.options.socket_prefix + std::to_string(pid);
}

// The sessions' sockets

/// Only root may connect. Returns -1 with errno set on failure.
int open_listener(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::copy(path.begin(), path.end(), address.sun_path);
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener < 0) {
        return -1;
    }
    unlink(path.c_str());
    const mode_t mask = umask(0177);
    const bool is_bound = bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    umask(mask);
    if (!is_bound || listen(listener, listen_queue) != 0) {
        close(listener);
        return -1;
    }
    return listener;
}

void begin_answering(responder& self, pid_t pid) {
    const int listener = open_listener(socket_path(self, pid));
    if (listener < 0 || !watch(self, listener, {.use = purpose::listen, .pid = pid})) {
        complain("cannot listen on", socket_path(self, pid));
        if (listener >= 0) {
            close(listener);
        }
        return;
    }
    self.listeners[pid] = listener;
    const int process = self.table.sessions[pid].process;
    if (!watch(self, process, {.use = purpose::process, .pid = pid})) {
        complain("cannot watch the process of", socket_path(self, pid));
    }
}

void stop_answering(responder& self, pid_t pid) {
    const auto listener = self.listeners.find(pid);
    if (listener != self.listeners.end()) {
        unwatch(self, listener->second);
        close(listener->second);
        self.listeners.erase(listener);
        unlink(socket_path(self, pid).c_str());
    }
}

void end_session(responder& self, pid_t pid) {
    stop_answering(self, pid);
    const auto session = self.table.sessions.find(pid);
    if (session != self.table.sessions.end()) {
        unwatch(self, session->second.process);
    }
    forget_session(self.table, pid);
    remove_stored_session(pid, self.options.state_folder);
}

/// The event may have been meant for an earlier descriptor with the same number.
void end_dead_session(responder& self, pid_t pid) {
    const auto session = self.table.sessions.find(pid);
    if (session != self.table.sessions.end() && !is_alive(session->second)) {
        end_session(self, pid);
    }
}

void end_moved_sessions(responder& self) {
    std::vector<pid_t> moved;
    for (const auto& [pid, session] : self.table.sessions) {
        if (session.moved) {
            moved.push_back(pid);
        }
    }
    for (const pid_t pid : moved) {
        end_session(self, pid);
    }
}

/// Removes the sockets that a killed responder has left behind.
void remove_stale_sockets(const responder& self) {
    const size_t name_start = self.options.socket_prefix.rfind('/') + 1;
    const std::string folder = self.options.socket_prefix.substr(0, name_start);
    const std::string prefix = self.options.socket_prefix.substr(name_start);
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), closedir);
    while (const dirent* entry = entries != nullptr ? readdir(entries.get()) : nullptr) {
        const std::string path = folder + entry->d_name;
        struct stat status = {};
        if (std::string_view(entry->d_name).starts_with(prefix) && lstat(path.c_str(), &status) == 0 &&
            S_ISSOCK(status.st_mode)) {
            unlink(path.c_str());
        }
    }
}

// Reports

/// File descriptors passed along do not fit and are discarded by the kernel.
bool receive_report(int report_socket, report_sender& sender, std::string& report) {
    std::array<char, sizeof(report_header) + longest_reported_line> buffer;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control = {};
    iovec place = {.iov_base = buffer.data(), .iov_len = buffer.size()};
    msghdr message = {};
    message.msg_iov = &place;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t length = recvmsg(report_socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (length < 0) {
        return false;
    }
    report.assign(buffer.data(), (message.msg_flags & MSG_TRUNC) != 0 ? 0 : static_cast<size_t>(length));
    sender = {};
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_CREDENTIALS) {
        ucred peer = {};
        std::memcpy(&peer, CMSG_DATA(header), sizeof(peer));
        sender = {.pid = peer.pid, .user = peer.uid};
    }
    return true;
}

void store_changes(responder& self) {
    for (auto& [pid, session] : self.table.sessions) {
        if (session.changed && store_session(self.table, session.facts, self.options.state_folder)) {
            session.changed = false;
        }
    }
}

void take_reports(responder& self) {
    report_sender sender;
    std::string report;
    bool has_changes = false;
    for (size_t i = 0; i < most_reports_in_a_row && receive_report(self.options.report_socket, sender, report); ++i) {
        // If the pid was reused, the old session must not keep the socket.
        end_dead_session(self, sender.pid);
        const pid_t changed = take_report(self.table, sender, report);
        has_changes = has_changes || changed != 0;
        if (changed != 0 && self.listeners.count(changed) == 0) {
            end_moved_sessions(self);
            begin_answering(self, changed);
        }
    }
    if (has_changes) {
        store_changes(self);
    }
}

// Queries

void accept_asker(responder& self, int listener, pid_t pid) {
    const int asker = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (asker < 0) {
        return;
    }
    if (self.askers >= most_askers ||
        !watch(self, asker, {.use = purpose::asker, .pid = pid, .since = self.table.processes.now()})) {
        close(asker);
        return;
    }
    ++self.askers;
}

void dismiss_asker(responder& self, int asker) {
    unwatch(self, asker);
    close(asker);
    --self.askers;
}

bool is_request(const session_request& request, ssize_t length) {
    return length == static_cast<ssize_t>(sizeof(request)) && request.zero == 0 && request.one == 1;
}

void answer(responder& self, int asker, pid_t pid) {
    session_request request = {};
    const ssize_t length = recv(asker, &request, sizeof(request), MSG_TRUNC);
    if (length < 0 && errno == EAGAIN) {
        return;
    }
    const auto session = self.table.sessions.find(pid);
    if (is_request(request, length) && session != self.table.sessions.end() && is_alive(session->second)) {
        byte_counters bytes;
        if (session->second.facts.rekey_seconds != 0 || session->second.facts.rekey_bytes != 0) {
            self.table.processes.look_at_connection(session->second.process, pid, nullptr, &bytes);
        }
        const session_snapshot now = make_snapshot(session->second.facts, self.table.processes.now(), bytes);
        send(asker, &now, sizeof(now), MSG_NOSIGNAL);
    }
    dismiss_asker(self, asker);
}

void dismiss_silent_askers(responder& self) {
    std::vector<int> silent;
    for (const auto& [descriptor, what] : self.endpoints) {
        if (what.use == purpose::asker && self.table.processes.now() > what.since + seconds_to_ask) {
            silent.push_back(descriptor);
        }
    }
    for (const int asker : silent) {
        dismiss_asker(self, asker);
    }
}

void handle(responder& self, int descriptor) {
    const auto found = self.endpoints.find(descriptor);
    if (found == self.endpoints.end()) {
        return;
    }
    const endpoint what = found->second;
    switch (what.use) {
        case purpose::reports:
            take_reports(self);
            break;
        case purpose::stop:
            self.is_ending = true;
            break;
        case purpose::listen:
            accept_asker(self, descriptor, what.pid);
            break;
        case purpose::process:
            end_dead_session(self, what.pid);
            break;
        case purpose::asker:
            answer(self, descriptor, what.pid);
            break;
    }
}

bool begin(responder& self) {
    const int on = 1;
    self.events = epoll_create1(EPOLL_CLOEXEC);
    if (self.events < 0 || setsockopt(self.options.report_socket, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0 ||
        !watch(self, self.options.report_socket, {.use = purpose::reports}) ||
        !watch(self, self.options.stop, {.use = purpose::stop})) {
        complain("cannot watch", "the report socket");
        return false;
    }
    if (mkdir(self.options.state_folder.c_str(), 0700) != 0 && errno != EEXIST) {
        complain("cannot create", self.options.state_folder);
        return false;
    }
    remove_stale_sockets(self);
    load_sessions(self.table, self.options.state_folder);
    for (const auto& [pid, session] : self.table.sessions) {
        begin_answering(self, pid);
    }
    return true;
}

void work(responder& self) {
    constexpr size_t most_events = 64;
    std::array<epoll_event, most_events> events;
    while (!self.is_ending) {
        const int timeout = self.askers != 0 ? asker_check_milliseconds : -1;
        const int count = epoll_wait(self.events, events.data(), events.size(), timeout);
        for (int i = 0; i < count; ++i) {
            handle(self, events[static_cast<size_t>(i)].data.fd);
        }
        if (self.askers != 0) {
            dismiss_silent_askers(self);
        }
    }
}

void finish(responder& self) {
    std::vector<pid_t> answered;
    for (const auto& [pid, listener] : self.listeners) {
        answered.push_back(pid);
    }
    for (const pid_t pid : answered) {
        stop_answering(self, pid);
    }
    while (!self.table.sessions.empty()) {
        forget_session(self.table, self.table.sessions.begin()->first);
    }
    for (const auto& [descriptor, what] : self.endpoints) {
        if (what.use == purpose::asker) {
            close(descriptor);
        }
    }
    if (self.events >= 0) {
        close(self.events);
    }
}

}  // namespace

bool run_responder(const responder_options& options, session_table& table) {
    responder self{options, table};
    const bool has_begun = begin(self);
    if (has_begun) {
        work(self);
    }
    finish(self);
    return has_begun;
}

}  // namespace openssh
