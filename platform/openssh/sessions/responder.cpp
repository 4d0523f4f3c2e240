#include "openssh/sessions/responder.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "openssh/sessions/discovery.h"
#include "openssh/sessions/session_list.h"
#include "openssh/sessions/snapshot.h"
#include "openssh/sessions/sockets.h"

namespace openssh {

namespace {

constexpr size_t most_askers = 64;
constexpr uint64_t seconds_to_ask = 2;

/// What a descriptor is for.
enum class purpose { files, stop, totals, list, listen, process, asker };

struct endpoint {
    purpose use = purpose::stop;
    pid_t pid = 0;       ///< of the session
    uint64_t since = 0;  ///< when the client connected
};

struct responder {
    const responder_options& options;
    session_table& table;
    int events = -1;
    int files = -1;  ///< watches the folder of the servers' files
    int totals = -1;
    int list = -1;
    std::map<int, endpoint> endpoints = {};
    std::map<pid_t, int> listeners = {};
    size_t askers = 0;
    bool is_ending = false;
    bool has_failed = false;
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

void begin_answering(responder& self, pid_t pid) {
    const int listener = open_listener(socket_path(self, pid));
    if (listener < 0 || !watch(self, listener, {.use = purpose::listen, .pid = pid})) {
        complain("cannot listen on", socket_path(self, pid));
        if (listener >= 0) {
            close(listener);
        }
    } else {
        self.listeners[pid] = listener;
    }
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

void begin_all(responder& self, const std::vector<pid_t>& pids) {
    for (const pid_t pid : pids) {
        begin_answering(self, pid);
    }
}

/// A client's number is kept, because its session may continue in another process.
void end_session(responder& self, pid_t pid) {
    stop_answering(self, pid);
    const auto session = self.table.sessions.find(pid);
    if (session == self.table.sessions.end()) {
        return;
    }
    const session_facts& facts = session->second.facts;
    if (facts.kind == session_kind::incoming) {
        const std::string name = session_name({.pid = facts.pid, .start_time = facts.start_time});
        unlink((self.table.page_folder + "/" + name).c_str());
        forget_session_number(self.table.numbers, number_key(facts));
    }
    unwatch(self, session->second.process);
    forget_session(self.table, pid);
}

/// The event may have been meant for an earlier descriptor with the same number.
void end_dead_session(responder& self, pid_t pid) {
    const auto session = self.table.sessions.find(pid);
    if (session != self.table.sessions.end() && !is_alive(session->second)) {
        end_session(self, pid);
    }
}

/// The pids may have been reused.
void end_dead_sessions(responder& self) {
    std::vector<pid_t> pids;
    pids.reserve(self.table.sessions.size());
    for (const auto& [pid, session] : self.table.sessions) {
        pids.push_back(pid);
    }
    for (const pid_t pid : pids) {
        end_dead_session(self, pid);
    }
}

// Discovery

void look_at_all_files(responder& self) {
    end_dead_sessions(self);
    begin_all(self, find_servers(self.table));
}

void look_at_file(responder& self, const std::string& name) {
    session_process owner;
    if (parse_session_name(name, owner)) {
        end_dead_session(self, owner.pid);
        if (find_server(self.table, name) != 0) {
            begin_answering(self, owner.pid);
        }
    }
}

void take_file_event(responder& self, const inotify_event& event) {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
        look_at_all_files(self);
    } else if ((event.mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
        errno = ENOENT;
        complain("lost the folder", self.table.page_folder);
        self.has_failed = self.is_ending = true;
    } else if (event.len != 0) {
        look_at_file(self, event.name);
    }
}

void take_file_events(responder& self) {
    constexpr size_t room = 16384;
    alignas(inotify_event) std::array<char, room> buffer;
    const ssize_t length = read(self.files, buffer.data(), buffer.size());
    for (ssize_t place = 0; place < length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + place);
        take_file_event(self, *event);
        place += static_cast<ssize_t>(sizeof(*event) + event->len);
    }
}

void look_at_everything(responder& self, session_totals& totals) {
    look_at_all_files(self);
    for (const pid_t pid : find_left_pages(self.table)) {
        end_session(self, pid);
    }
    begin_all(self, find_clients(self.table, totals));
    std::vector<std::string> used;
    used.reserve(self.table.sessions.size());
    for (const auto& [pid, session] : self.table.sessions) {
        used.push_back(number_key(session.facts));
    }
    std::sort(used.begin(), used.end());
    forget_unused_numbers(self.table.numbers,
                          [&used](std::string_view key) { return std::binary_search(used.begin(), used.end(), key); });
}

// Queries

void tell_totals(responder& self) {
    const int asker = accept_connection(self.totals);
    if (asker >= 0) {
        session_totals totals;
        look_at_everything(self, totals);
        send(asker, &totals, sizeof(totals), MSG_NOSIGNAL | MSG_DONTWAIT);
        close(asker);
    }
}

void hand_out_list(responder& self) {
    const int asker = accept_connection(self.list);
    if (asker < 0) {
        return;
    }
    look_at_all_files(self);
    errno = send_session_list(asker, list_sessions(self.table, boot_time_now()));
    if (errno != 0 && errno != EPIPE) {
        complain("cannot hand out", "the list of sessions");
    }
    close(asker);
}

void accept_asker(responder& self, int listener, pid_t pid) {
    const int asker = accept_connection(listener);
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

/// Otherwise, a user could have an outgoing session shown as an incoming one by giving a process a server's title.
/// Queries to servers accept only complete answers, so answers for outgoing sessions omit the last byte, which is
/// always 0 and is not missed.
size_t answer_size(const session_facts& facts) {
    return facts.kind == session_kind::incoming ? sizeof(session_snapshot) : sizeof(session_snapshot) - 1;
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
        self.table.processes.look_at_connection(session->second.process, pid, bytes);
        const session_facts& facts = current_facts(self.table, session->second);
        const session_snapshot now = make_snapshot(facts, self.table.processes.now(), bytes);
        send(asker, &now, answer_size(facts), MSG_NOSIGNAL);
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
        case purpose::files:
            take_file_events(self);
            break;
        case purpose::stop:
            self.is_ending = true;
            break;
        case purpose::totals:
            tell_totals(self);
            break;
        case purpose::list:
            hand_out_list(self);
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

// From the start to the end

/// sshd creates the same folder if it runs first.
bool make_folder(const std::string& path) {
    constexpr mode_t for_root_alone = 0700;
    if (mkdir(path.c_str(), for_root_alone) == 0 || errno == EEXIST) {
        return true;
    }
    complain("cannot create", path);
    return false;
}

bool watch_everything(responder& self) {
    self.events = epoll_create1(EPOLL_CLOEXEC);
    self.files = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    self.totals = open_listener(self.options.totals_socket);
    self.list = open_listener(self.options.list_socket);
    constexpr uint32_t appears_or_is_lost = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    if (self.events < 0 || self.files < 0 || self.totals < 0 || self.list < 0 ||
        inotify_add_watch(self.files, self.table.page_folder.c_str(), appears_or_is_lost) < 0 ||
        !watch(self, self.files, {.use = purpose::files}) || !watch(self, self.totals, {.use = purpose::totals}) ||
        !watch(self, self.list, {.use = purpose::list}) || !watch(self, self.options.stop, {.use = purpose::stop})) {
        complain("cannot watch", self.table.page_folder);
        return false;
    }
    return true;
}

bool begin(responder& self) {
    if (!make_folder(self.table.page_folder) || !make_folder(self.table.numbers.folder) || !watch_everything(self)) {
        return false;
    }
    remove_sockets(self.options.socket_prefix);
    load_session_numbers(self.table.numbers);
    session_totals totals;
    look_at_everything(self, totals);
    self.options.report_alive(true);
    return true;
}

void work(responder& self) {
    constexpr size_t most_events = 64;
    std::array<epoll_event, most_events> events;
    while (!self.is_ending) {
        const int count = epoll_wait(self.events, events.data(), events.size(), alive_milliseconds);
        for (int i = 0; i < count; ++i) {
            handle(self, events[static_cast<size_t>(i)].data.fd);
        }
        if (self.askers != 0) {
            dismiss_silent_askers(self);
        }
        self.options.report_alive(false);
    }
}

void finish(responder& self) {
    std::vector<pid_t> answered;
    answered.reserve(self.listeners.size());
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
    if (self.totals >= 0) {
        unlink(self.options.totals_socket.c_str());
    }
    if (self.list >= 0) {
        unlink(self.options.list_socket.c_str());
    }
    for (const int descriptor : {self.totals, self.list, self.files, self.events}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
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
    return has_begun && !self.has_failed;
}

}  // namespace openssh
