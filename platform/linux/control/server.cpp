#include "linux/control/server.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <new>
#include <string>
#include <tuple>

#include "control_protocol/answer.h"
#include "linux/control/connection.h"
#include "linux/reporting/log_message_internal.h"

namespace {

constexpr uint64_t second = 1'000'000;
/// How many connections are accepted before existing ones get their turn.
constexpr int accepted_at_once = 16;
/// How long the agent is left to its work between two turns of others.
constexpr uint64_t turn_interval = second / 50;
/// How long accepting pauses when the process is out of descriptors or memory.
constexpr uint64_t pause_without_descriptors = second / 5;
/// Descriptors that connections must leave free for the agent's own work.
constexpr size_t reserved_descriptors = 8;

/// Sends the reason why a connection is about to be closed, if the peer's buffer accepts it at once.
void send_parting_answer(int fd, const control_json& answer) {
    const std::string text = control_json_text(answer);
    const auto header = control_frame_header(static_cast<uint32_t>(text.size()));
    const std::string frame = std::string(header.begin(), header.end()) + text;
    static_cast<void>(send(fd, frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
}

/// The order in which connections are dropped to make room for new ones: root's last, of the others watchers last, and
/// before them those whose answer is being sent.
bool dropped_before(const std::unique_ptr<control_connection>& left, const std::unique_ptr<control_connection>& right) {
    const auto rank = [](const control_connection& connection) {
        const bool is_served =
            connection.phase == control_phase::answering || connection.phase == control_phase::deferred;
        return std::tuple(connection.in_call, connection.peer.uid == 0, control_is_watching(connection), is_served,
                          connection.since);
    };
    return rank(*left) < rank(*right);
}

/// Returns false if there is none that could be dropped.
bool drop_idle_longest(control_server& server) {
    const auto first = std::min_element(server.connections.begin(), server.connections.end(), dropped_before);
    if (first == server.connections.end() || (*first)->in_call) {
        return false;
    }
    control_connection* victim = first->get();
    if (victim->phase != control_phase::answering && !control_is_watching(*victim)) {
        control_json answer = control_answer(control_result::failed,
                                             "too many connections; dropped because this one has been idle longest");
        answer["retry"] = true;
        send_parting_answer(victim->fd, answer);
    }
    control_connection_drop(victim);
    return true;
}

/// Whether the agent's own work would find its descriptors.
bool has_reserve(const control_server& server) {
    std::array<int, reserved_descriptors> probes;
    for (int& probe : probes) {
        probe = fcntl(server.listener, F_DUPFD_CLOEXEC, 0);
    }
    const bool complete = probes.back() >= 0;
    for (const int probe : probes) {
        if (probe >= 0) {
            close(probe);
        }
    }
    return complete;
}

/// Makes room for a connection that has been accepted.
void make_room(control_server& server) {
    while ((server.connections.size() >= server.limits.connections || !has_reserve(server)) &&
           drop_idle_longest(server)) {
    }
}

void refuse(control_server& server, int fd, const control_peer& peer) {
    send_parting_answer(fd, control_answer(control_result::failed,
                                           "only root and members of the group sshcfg may use the control socket"));
    close(fd);
    // At most one line in ten seconds: refused peers must not be able to fill the log.
    if (server.refusal_logged == 0 || control_now() - server.refusal_logged > 10 * second) {
        server.refusal_logged = control_now();
        platform_log(LOG_WARNING,
                     "Control connection refused: uid:=%u, pid:=%d is neither root nor in the group sshcfg", peer.uid,
                     peer.pid);
    }
}

void admit(control_server& server, int fd) {
    control_peer peer = {};
    if (control_peer_read(fd, peer) != PLATFORM_OK) {
        close(fd);
        return;
    }
    if (!control_peer_admit(fd, peer, server.groups)) {
        refuse(server, fd, peer);
        return;
    }
    make_room(server);
    const platform_status status = control_connection_add(&server, fd, peer);
    if (status != PLATFORM_OK) {
        platform_log(LOG_ERR, "Error:=%s(0x%x), Failed to serve a control connection", platform_status_text(status),
                     status);
    }
}

bool is_shortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

/// Disables the listener for a while: it stays readable while nothing can be accepted and would keep the loop spinning.
void pause_accepting(control_server& server, int error) {
    platform_log(LOG_ERR, "Error:=%s(0x%x), Failed to accept a control connection, waiting",
                 platform_status_text(error), error);
    sd_event_source_set_enabled(server.listener_source, SD_EVENT_OFF);
    sd_event_source_set_time(server.resume_source, control_now() + pause_without_descriptors);
    sd_event_source_set_enabled(server.resume_source, SD_EVENT_ONESHOT);
}

/// If the process is out of descriptors, the connection idle longest gives way.
int accept_one(control_server& server) {
    int fd = accept4(server.listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0 && is_shortage(errno) && drop_idle_longest(server)) {
        fd = accept4(server.listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    }
    return fd;
}

void accept_some(control_server& server) {
    for (int count = 0; count < accepted_at_once; count++) {
        const int fd = accept_one(server);
        if (fd >= 0) {
            admit(server, fd);
            continue;
        }
        if (is_shortage(errno)) {
            pause_accepting(server, errno);
        }
        return;
    }
}

void tell_progress(control_server& server) {
    if (server.services.progress == nullptr) {
        return;
    }
    const control_json progress = server.services.progress();
    if (progress.is_null()) {
        return;
    }
    for (const std::unique_ptr<control_connection>& connection : server.connections) {
        control_connection_tell_progress(*connection, progress);
    }
}

/// Only the connection that is being served may be dropped here.
void serve_connections(control_server& server) {
    for (auto next = server.connections.begin(); next != server.connections.end();) {
        control_connection_serve_meanwhile(**next++);
    }
}

int listener_is_ready(sd_event_source* /*source*/, int /*fd*/, uint32_t /*events*/, void* userdata) {
    auto* server = static_cast<control_server*>(userdata);
    try {
        accept_some(*server);
    } catch (const std::exception& exception) {
        platform_log(LOG_ERR, "Failed to accept a control connection: %s", exception.what());
    }
    return 0;
}

int accepting_resumes(sd_event_source* /*source*/, uint64_t /*usec*/, void* userdata) {
    const auto* server = static_cast<control_server*>(userdata);
    sd_event_source_set_enabled(server->listener_source, SD_EVENT_ON);
    return 0;
}

int attach(control_server& server, sd_event* loop) {
    int result = sd_event_add_io(loop, &server.listener_source, server.listener, EPOLLIN, listener_is_ready, &server);
    if (result >= 0) {
        result = sd_event_source_set_priority(server.listener_source, CONTROL_PRIORITY_LISTENER);
    }
    if (result >= 0) {
        result =
            sd_event_add_time(loop, &server.resume_source, CLOCK_MONOTONIC, UINT64_MAX, 0, accepting_resumes, &server);
    }
    return result >= 0 ? sd_event_source_set_enabled(server.resume_source, SD_EVENT_OFF) : result;
}

void detach(control_server& server) {
    server.listener_source = sd_event_source_disable_unref(server.listener_source);
    server.resume_source = sd_event_source_disable_unref(server.resume_source);
    server.loop = sd_event_unref(server.loop);
}

}  // namespace

control_server* control_server_create(int listener, const control_groups& groups, const control_limits& limits,
                                      const control_services& services) {
    auto* server = new (std::nothrow) control_server();
    if (server == nullptr) {
        close(listener);
        throw std::bad_alloc();
    }
    server->listener = listener;
    server->groups = groups;
    server->limits = limits;
    server->services = services;
    return server;
}

platform_status control_server_start(control_server* server, sd_event* loop) {
    if (server->loop != nullptr) {
        return EALREADY;
    }
    server->loop = sd_event_ref(loop);
    const int result = attach(*server, loop);
    if (result < 0) {
        detach(*server);
        return static_cast<platform_status>(-result);
    }
    return PLATFORM_OK;
}

void control_server_serve_meanwhile(control_server* server) {
    const uint64_t begin = control_now();
    if (server->loop == nullptr || server->is_busy || begin < server->next_turn) {
        return;
    }
    server->is_busy = true;
    try {
        accept_some(*server);
        serve_connections(*server);
        tell_progress(*server);
    } catch (const std::exception& exception) {
        platform_log(LOG_ERR, "Failed to serve control connections: %s", exception.what());
    }
    server->is_busy = false;
    const uint64_t end = control_now();
    server->next_turn = end + std::max(end - begin, turn_interval);
}

size_t control_server_watchers(const control_server* server, control_topic topic) {
    return static_cast<size_t>(
        std::count_if(server->connections.begin(), server->connections.end(),
                      [topic](const auto& connection) { return connection->watching == topic; }));
}

void control_server_publish(control_server* server, std::string_view subject, std::string_view document,
                            control_topic topic) {
    const auto event =
        std::make_shared<const control_event>(control_event{std::string(subject), std::string(document)});
    for (auto next = server->connections.begin(); next != server->connections.end();) {
        // The connection may be dropped here.
        control_connection& connection = **next++;
        if (connection.watching == topic) {
            control_connection_notify(connection, event);
        }
    }
}

void control_server_stop(control_server* server) {
    while (!server->connections.empty()) {
        control_connection_drop(server->connections.back().get());
    }
    detach(*server);
}

void control_server_free(control_server* server) {
    if (server == nullptr) {
        return;
    }
    control_server_stop(server);
    close(server->listener);
    delete server;
}
