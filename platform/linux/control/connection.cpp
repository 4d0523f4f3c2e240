#include "linux/control/connection.h"

#include <malloc.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <utility>

#include "control_protocol/answer.h"
#include "linux/reporting/log_message_internal.h"

namespace {

constexpr uint64_t second = 1'000'000;
/// The most to read or write before other connections get their turn.
constexpr size_t turn_size = 1024UL * 1024;
/// How often a peer is told how far its request is.
constexpr uint64_t progress_interval = second / 4;
/// The memory of frames and answers larger than this is returned to the system at once. Parsed JSON takes more than ten
/// times as much memory as its text: a megabyte for the status of 256 VRFs.
constexpr size_t worth_trimming = 32UL * 1024;

// All connections share one buffer: it is only used between a read and the copy into the frame.
std::array<char, 64UL * 1024> read_buffer;

void set_deadline(control_connection& connection, uint64_t duration) {
    connection.deadline = control_now() + duration;
    sd_event_source_set_time(connection.limit, connection.deadline);
    sd_event_source_set_enabled(connection.limit, SD_EVENT_ONESHOT);
}

void enter_phase(control_connection& connection, control_phase phase, uint64_t duration) {
    connection.phase = phase;
    connection.since = control_now();
    set_deadline(connection, duration);
    sd_event_source_set_io_events(connection.io, phase == control_phase::answering ? EPOLLOUT : EPOLLIN);
}

/// Waits without a time limit.
void wait_for_event(control_connection& connection) {
    enter_phase(connection, control_phase::waiting, 0);
    sd_event_source_set_enabled(connection.limit, SD_EVENT_OFF);
}

void forget_frame(control_connection& connection) {
    connection.server->large_frames -= std::exchange(connection.promised, 0);
    connection.frame = {};
}

void forget_answer(control_connection& connection) {
    connection.server->answers -= connection.answer.size();
    const bool large = connection.answer.size() > worth_trimming;
    std::string().swap(connection.answer);
    connection.sent = 0;
    if (large) {
        malloc_trim(0);
    }
}

control_json busy_answer() {
    control_json answer =
        control_answer(control_result::failed, "the agent is busy with other large requests; try again");
    answer["retry"] = true;
    return answer;
}

/// The part of a limit of all connections together that this one may use up. Half of it is left to root.
size_t limit_for(const control_connection& connection, size_t limit) {
    return connection.peer.uid == 0 ? limit : limit / 2;
}

/// The time allowed until the peer accepts at least one byte.
uint64_t time_to_take(const control_connection& connection) {
    const control_limits& limits = connection.server->limits;
    return control_is_watching(connection) ? limits.watch_time : limits.answer_time;
}

std::string frame_of(std::string text) {
    const auto header = control_frame_header(static_cast<uint32_t>(text.size()));
    text.insert(text.begin(), header.begin(), header.end());
    return text;
}

/// Adds a frame to what is still to be sent.
void add_frame(control_connection& connection, std::string text) {
    const std::string frame = frame_of(std::move(text));
    connection.server->answers -= connection.answer.size();
    connection.answer.erase(0, std::exchange(connection.sent, 0));
    connection.answer += frame;
    connection.server->answers += connection.answer.size();
}

/// Starts sending a document, after what is left of the last report of progress.
void send_document(control_connection& connection, std::string text) {
    add_frame(connection, std::move(text));
    enter_phase(connection, control_phase::answering, time_to_take(connection));
}

/// The answer is sent when control returns to the loop. By then everything that the call has scheduled there has
/// happened, above all the opening of a VRF's ports.
void send_answer(control_connection& connection, const control_json& answer, bool last) {
    std::string text = control_json_text(answer);
    if (text.size() > CONTROL_FRAME_MAX) {
        text = control_json_text(control_answer(control_result::failed,
                                                "the answer exceeds the maximum frame size; request less at a time"));
    } else if (connection.server->answers + text.size() > limit_for(connection, connection.server->limits.answers)) {
        text = control_json_text(busy_answer());
        last = true;
    }
    forget_frame(connection);
    connection.last_answer = last;
    send_document(connection, std::move(text));
}

void send_events(control_connection& connection) {
    send_document(connection, control_event_take(connection.events, connection.server->limits.watch_frame));
}

void send_last_answer(control_connection& connection, control_result result, const std::string& message) {
    send_answer(connection, control_answer(result, message), true);
}

/// Makes the peer a watcher, as its answer says, if there is a free place.
void admit_watcher(control_connection& connection, control_json& answer) {
    const control_server& server = *connection.server;
    if (control_connection_watchers(server) >= server.limits.watchers) {
        answer = control_answer(control_result::failed,
                                "too many watchers: the limit is " + std::to_string(server.limits.watchers));
        return;
    }
    connection.watching = answer["watching"] == "sessions" ? control_topic::sessions : control_topic::telemetry;
}

/// Marks a connection whose request is being carried out, so that nobody else uses or drops it meanwhile.
class running_call {
  public:
    explicit running_call(control_connection& connection) : connection_(connection) { connection_.in_call = true; }
    ~running_call() { connection_.in_call = false; }
    running_call(const running_call&) = delete;
    running_call& operator=(const running_call&) = delete;

  private:
    control_connection& connection_;
};

void answer_call(control_connection& connection, const control_json& request) {
    control_json answer;
    const control_json_guard guard(answer);
    {
        const running_call running(connection);
        answer = connection.server->services.call(request, connection.peer);
    }
    if (answer.contains("watching")) {
        admit_watcher(connection, answer);
    }
    send_answer(connection, answer, false);
}

bool has_to_wait(const control_server& server, const control_json& request) {
    return server.is_busy && (server.services.may_be_answered_meanwhile == nullptr ||
                              !server.services.may_be_answered_meanwhile(request));
}

/// Keeps the request until the loop is reached, where the connection is then found ready.
void defer(control_connection& connection, control_json request) {
    connection.request = std::move(request);
    connection.phase = control_phase::deferred;
    sd_event_source_set_io_events(connection.io, EPOLLOUT);
    sd_event_source_set_enabled(connection.limit, SD_EVENT_OFF);
}

void answer_deferred(control_connection& connection) {
    control_json request = std::exchange(connection.request, {});
    const control_json_guard guard(request);
    answer_call(connection, request);
}

void take_request(control_connection& connection, control_json request) {
    const control_json_guard guard(request);
    connection.wants_progress = request.contains("progress") && request["progress"] == true;
    if (has_to_wait(*connection.server, request)) {
        defer(connection, std::move(request));
    } else {
        answer_call(connection, request);
    }
}

void handle_request(control_connection& connection) {
    const size_t size = connection.frame.document.size();
    std::string error;
    std::optional<control_json> parsed = control_json_parse(connection.frame.document, error);
    const bool is_json = parsed.has_value();
    control_json request = std::move(parsed).value_or(nullptr);
    const control_json_guard guard(request);
    std::string().swap(connection.frame.document);
    if (!is_json) {
        send_last_answer(connection, control_result::refused, "request refused: " + error);
    } else if (!request.is_object() || !request.contains("call") || !request["call"].is_string()) {
        send_answer(connection,
                    control_answer(control_result::usage, "expected a request: an object with a string \"call\""),
                    false);
    } else {
        take_request(connection, std::move(request));
    }
    control_json_release(request);
    if (size > worth_trimming) {
        malloc_trim(0);
    }
}

/// A large frame needs one of the places for large frames, so that together they cannot take all memory.
bool promise_memory(control_connection& connection) {
    control_server& server = *connection.server;
    const size_t length = control_frame_length(connection.frame);
    if (length <= server.limits.small_frame || connection.promised > 0) {
        return true;
    }
    if (server.large_frames + length > limit_for(connection, server.limits.large_frames)) {
        return false;
    }
    server.large_frames += length;
    connection.promised = length;
    return true;
}

void take_bytes(control_connection& connection, std::string_view bytes) {
    if (connection.phase == control_phase::idle) {
        enter_phase(connection, control_phase::receiving, connection.server->limits.frame_time);
    }
    control_frame_take(connection.frame, bytes);
    switch (control_frame_progress(connection.frame)) {
        case control_frame_state::too_large:
            send_last_answer(connection, control_result::refused,
                             "request refused: a frame of " + std::to_string(control_frame_length(connection.frame)) +
                                 " bytes exceeds the maximum of " + std::to_string(CONTROL_FRAME_MAX));
            break;
        case control_frame_state::complete:
            handle_request(connection);
            break;
        case control_frame_state::incomplete:
            if (!promise_memory(connection)) {
                send_answer(connection, busy_answer(), true);
            }
            break;
    }
}

/// Whether a connection still exists after being served.
enum class served : uint8_t { kept, dropped };

served drop(control_connection& connection) {
    control_connection_drop(&connection);
    return served::dropped;
}

served handle_end_of_input(control_connection& connection) {
    if (connection.phase == control_phase::idle) {
        return drop(connection);
    }
    send_last_answer(connection, control_result::refused, "request refused: it ends in the middle of a frame");
    return served::kept;
}

/// Whether a failed read or write just needs to be repeated later.
bool try_again_later(int error) {
    return error == EAGAIN || error == EINTR;
}

served read_frame(control_connection& connection) {
    const auto has_request = [&connection] {
        return connection.phase == control_phase::answering || connection.phase == control_phase::deferred;
    };
    for (size_t total = 0; total < turn_size && !has_request();) {
        const size_t wanted = std::min(control_frame_missing(connection.frame), read_buffer.size());
        const ssize_t count = recv(connection.fd, read_buffer.data(), wanted, MSG_DONTWAIT);
        if (count < 0) {
            return try_again_later(errno) ? served::kept : drop(connection);
        }
        if (count == 0) {
            return handle_end_of_input(connection);
        }
        take_bytes(connection, std::string_view(read_buffer.data(), static_cast<size_t>(count)));
        total += static_cast<size_t>(count);
    }
    return served::kept;
}

served write_answer(control_connection& connection) {
    const size_t size = std::min(connection.answer.size() - connection.sent, turn_size);
    const ssize_t count =
        send(connection.fd, connection.answer.data() + connection.sent, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0) {
        return try_again_later(errno) ? served::kept : drop(connection);
    }
    connection.sent += static_cast<size_t>(count);
    if (connection.sent < connection.answer.size()) {
        set_deadline(connection, time_to_take(connection));
        return served::kept;
    }
    if (connection.last_answer) {
        return drop(connection);
    }
    forget_answer(connection);
    if (!control_is_watching(connection)) {
        enter_phase(connection, control_phase::idle, connection.server->limits.idle_time);
    } else if (connection.events.events.empty()) {
        wait_for_event(connection);
    } else {
        send_events(connection);
    }
    return served::kept;
}

/// A watcher has nothing more to send, so readable means that it hangs up.
served read_end(control_connection& connection) {
    char byte = 0;
    const ssize_t count = recv(connection.fd, &byte, 1, MSG_DONTWAIT);
    return count < 0 && try_again_later(errno) ? served::kept : drop(connection);
}

served serve(control_connection& connection) {
    switch (connection.phase) {
        case control_phase::answering:
            return write_answer(connection);
        case control_phase::waiting:
            return read_end(connection);
        case control_phase::deferred:
            answer_deferred(connection);
            return served::kept;
        case control_phase::idle:
        case control_phase::receiving:
            break;
    }
    return read_frame(connection);
}

/// No exception may cross the loop, which is written in C: a request must never end the agent.
template <class action>
void guarded(control_connection* connection, action act) {
    try {
        act();
    } catch (const std::exception& exception) {
        platform_log(LOG_ERR, "Dropped a control connection from process %d: %s", connection->peer.pid,
                     exception.what());
        control_connection_drop(connection);
    }
}

int io_is_ready(sd_event_source* /*source*/, int /*fd*/, uint32_t /*events*/, void* userdata) {
    auto* connection = static_cast<control_connection*>(userdata);
    guarded(connection, [connection] { serve(*connection); });
    return 0;
}

uint64_t time_for(const control_connection& connection) {
    const control_limits& limits = connection.server->limits;
    switch (connection.phase) {
        case control_phase::idle:
            return limits.idle_time;
        case control_phase::receiving:
            return limits.frame_time;
        case control_phase::deferred:
        case control_phase::answering:
        case control_phase::waiting:
            break;
    }
    return time_to_take(connection);
}

void time_is_up(control_connection& connection) {
    // A handler has delayed the loop, which is not the peer's fault: the time limit starts again.
    if (control_now() > connection.deadline + second) {
        set_deadline(connection, time_for(connection));
        return;
    }
    // The missing bytes may have arrived in the socket while other connections were served.
    const uint64_t deadline = connection.deadline;
    if (serve(connection) == served::dropped || connection.deadline != deadline) {
        return;
    }
    if (connection.phase == control_phase::receiving) {
        send_last_answer(connection, control_result::refused,
                         "request refused: the frame is still incomplete after " +
                             std::to_string(connection.server->limits.frame_time / second) + " seconds");
        return;
    }
    if (control_is_watching(connection)) {
        platform_log(LOG_NOTICE, "Dropped a watcher: process %d has not read its events for %d seconds",
                     connection.peer.pid, static_cast<int>(connection.server->limits.watch_time / second));
    }
    control_connection_drop(&connection);
}

int limit_is_reached(sd_event_source* /*source*/, uint64_t /*usec*/, void* userdata) {
    auto* connection = static_cast<control_connection*>(userdata);
    guarded(connection, [connection] { time_is_up(*connection); });
    return 0;
}

int attach(control_connection& connection) {
    sd_event* loop = connection.server->loop;
    int result = sd_event_add_io(loop, &connection.io, connection.fd, EPOLLIN, io_is_ready, &connection);
    if (result >= 0) {
        result = sd_event_source_set_priority(
            connection.io, connection.peer.uid == 0 ? CONTROL_PRIORITY_ROOT : CONTROL_PRIORITY_CONNECTION);
    }
    if (result >= 0) {
        result = sd_event_add_time(loop, &connection.limit, CLOCK_MONOTONIC, UINT64_MAX, second / 10, limit_is_reached,
                                   &connection);
    }
    if (result >= 0) {
        result = sd_event_source_set_priority(connection.limit, CONTROL_PRIORITY_LIMIT);
    }
    return result;
}

}  // namespace

uint64_t control_now() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * second + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

size_t control_connection_watchers(const control_server& server) {
    return static_cast<size_t>(std::count_if(server.connections.begin(), server.connections.end(),
                                             [](const auto& connection) { return control_is_watching(*connection); }));
}

platform_status control_connection_add(control_server* server, int fd, const control_peer& peer) {
    std::unique_ptr<control_connection> owned;
    try {
        owned = std::make_unique<control_connection>();
        server->connections.emplace_back();
    } catch (const std::bad_alloc&) {
        close(fd);
        throw;
    }
    control_connection& connection = *owned;
    server->connections.back() = std::move(owned);
    connection.server = server;
    connection.fd = fd;
    connection.peer = peer;
    const int result = attach(connection);
    if (result < 0) {
        control_connection_drop(&connection);
        return static_cast<platform_status>(-result);
    }
    enter_phase(connection, control_phase::idle, server->limits.idle_time);
    return PLATFORM_OK;
}

void control_connection_notify(control_connection& connection, const std::shared_ptr<const control_event>& event) {
    if (!control_event_add(connection.events, event, connection.server->limits.watch_queue)) {
        platform_log(LOG_NOTICE, "Dropped a watcher: too many events are queued for process %d", connection.peer.pid);
        control_connection_drop(&connection);
    } else if (connection.phase == control_phase::waiting) {
        send_events(connection);
    }
}

void control_connection_serve_meanwhile(control_connection& connection) {
    // Watchers are served by the loop only, where the state that they are told of is complete.
    if (connection.in_call || control_is_watching(connection) || connection.phase == control_phase::deferred) {
        return;
    }
    guarded(&connection, [&connection] {
        if (serve(connection) == served::kept && connection.phase == control_phase::answering) {
            serve(connection);
        }
    });
}

void control_connection_tell_progress(control_connection& connection, const control_json& progress) {
    const bool is_waiting = connection.phase == control_phase::deferred;
    const uint64_t now = control_now();
    const uint64_t begin = connection.since + connection.server->limits.progress_time;
    if (!connection.wants_progress || !(connection.in_call || is_waiting) ||
        now < std::max(begin, connection.told + progress_interval)) {
        return;
    }
    connection.told = now;
    if (connection.sent == connection.answer.size()) {
        control_json report = {{"progress", progress}};
        report["progress"]["waiting"] = is_waiting;
        add_frame(connection, control_json_text(report));
    }
    // A peer that does not read it gets the rest before the answer.
    const ssize_t count = send(connection.fd, connection.answer.data() + connection.sent,
                               connection.answer.size() - connection.sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    connection.sent += static_cast<size_t>(std::max<ssize_t>(count, 0));
}

void control_connection_drop(control_connection* connection) {
    forget_frame(*connection);
    forget_answer(*connection);
    sd_event_source_disable_unref(connection->io);
    sd_event_source_disable_unref(connection->limit);
    close(connection->fd);
    connection->server->connections.remove_if(
        [connection](const std::unique_ptr<control_connection>& entry) { return entry.get() == connection; });
}
