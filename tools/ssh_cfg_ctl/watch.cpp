#include "ssh_cfg_ctl/watch.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <optional>
#include <string>

#include "control_protocol/frame.h"

namespace {

constexpr std::array end_signals = {SIGINT, SIGTERM};

volatile sig_atomic_t end_is_wanted = 0;

void want_end(int /*number*/) {
    end_is_wanted = 1;
}

/// Signals that end the watch are delivered only while it waits, so each line is written completely or not at all.
class watched_signals {
  public:
    watched_signals() {
        end_is_wanted = 0;
        struct sigaction action = {};
        action.sa_handler = want_end;
        sigset_t blocked;
        sigemptyset(&blocked);
        for (size_t index = 0; index < end_signals.size(); index++) {
            sigaddset(&blocked, end_signals[index]);
            sigaction(end_signals[index], &action, &actions[index]);
        }
        action.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &action, &pipe_action);
        pthread_sigmask(SIG_BLOCK, &blocked, &mask);
        while_waiting = mask;
        for (const int number : end_signals) {
            sigdelset(&while_waiting, number);
        }
    }
    ~watched_signals() {
        for (size_t index = 0; index < end_signals.size(); index++) {
            sigaction(end_signals[index], &actions[index], nullptr);
        }
        sigaction(SIGPIPE, &pipe_action, nullptr);
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    }
    watched_signals(const watched_signals&) = delete;
    watched_signals& operator=(const watched_signals&) = delete;

    const sigset_t& mask_while_waiting() const { return while_waiting; }

  private:
    std::array<struct sigaction, end_signals.size()> actions{};
    struct sigaction pipe_action = {};
    sigset_t mask{};
    sigset_t while_waiting{};
};

/// The text still to write, and the part of the next frame received so far.
struct watch_state {
    int input;
    int output;
    std::string lines;
    size_t written = 0;
    control_frame_reader frame;
    std::string (*line_of)(const control_json& event);
};

/// In gNMI each update contains the number of older ones it replaces.
void tell_coalesced(control_json& notification, const control_json& coalesced) {
    const auto updates = notification.find("update");
    if (updates == notification.end()) {
        notification["dropped"] = coalesced;
    }
    if (updates != notification.end() && updates->is_array()) {
        for (control_json& update : *updates) {
            update["duplicates"] = coalesced;
        }
    }
}

void add_lines(watch_state& state, control_json document) {
    const auto data = document.find("data");
    if (data == document.end() || !data->is_array()) {
        return;
    }
    const auto coalesced = document.find("coalesced");
    if (coalesced != document.end() && !data->empty() && data->front().is_object()) {
        tell_coalesced(data->front(), *coalesced);
    }
    for (const control_json& notification : *data) {
        state.lines += state.line_of(notification) + '\n';
    }
}

/// The outcome of a step of the watch: nothing to go on, or the final answer.
using watch_step = std::optional<control_json>;

watch_step agent_is_gone(const watch_state& state) {
    return control_answer(control_result::unreachable,
                          control_frame_begun(state.frame)
                              ? "the agent closed the connection in the middle of an event: it ended, or its "
                                "events were not read in time"
                              : "the agent closed the connection");
}

watch_step take_frame(watch_state& state) {
    if (control_frame_progress(state.frame) == control_frame_state::too_large) {
        return control_answer(control_result::failed, "the agent's event exceeds the maximum frame size");
    }
    if (control_frame_progress(state.frame) == control_frame_state::complete) {
        control_json document = ctl_parse_answer(state.frame.document);
        state.frame = {};
        if (document.contains("result")) {
            return document;
        }
        add_lines(state, std::move(document));
    }
    return std::nullopt;
}

watch_step read_input(watch_state& state) {
    static char buffer[65536];
    const size_t wanted = std::min(control_frame_missing(state.frame), sizeof buffer);
    const ssize_t count = recv(state.input, buffer, wanted, MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return std::nullopt;
    }
    if (count <= 0) {
        return agent_is_gone(state);
    }
    control_frame_take(state.frame, std::string_view(buffer, static_cast<size_t>(count)));
    return take_frame(state);
}

/// Writes the next line. A pipe that is ready for writing accepts PIPE_BUF bytes, so this never blocks.
watch_step write_line(watch_state& state) {
    const size_t line = state.lines.find('\n', state.written) + 1 - state.written;
    const ssize_t count = write(state.output, state.lines.data() + state.written, std::min<size_t>(line, PIPE_BUF));
    if (count < 0 && errno == EPIPE) {
        return control_answer(control_result::done);
    }
    if (count < 0 && errno != EAGAIN && errno != EINTR) {
        return control_answer(control_result::failed, std::string("standard output: ") + strerror(errno));
    }
    state.written += static_cast<size_t>(std::max<ssize_t>(count, 0));
    if (state.written == state.lines.size()) {
        state.lines.clear();
        state.written = 0;
    }
    return std::nullopt;
}

/// Waits until the next read or write is possible, and does it. Nothing is read until everything is written; the agent
/// limits what piles up in the meantime.
watch_step next_step(watch_state& state, const watched_signals& signals) {
    const bool writing = !state.lines.empty();
    std::array<pollfd, 2> entries = {
        {{state.output, static_cast<int16_t>(writing ? POLLOUT : 0), 0}, {state.input, POLLIN, 0}}};
    const int ready = ppoll(entries.data(), writing ? 1 : 2, nullptr, &signals.mask_while_waiting());
    if (end_is_wanted != 0) {
        return control_answer(control_result::done);
    }
    if (ready <= 0) {
        return std::nullopt;
    }
    if (writing) {
        return write_line(state);
    }
    const bool nobody_reads = (entries[0].revents & (POLLERR | POLLHUP)) != 0;
    return nobody_reads ? control_answer(control_result::done) : read_input(state);
}

}  // namespace

control_json ctl_watch(const ctl_connection_settings& settings, const control_json& request, int output,
                       std::string (*line_of)(const control_json& event)) {
    ctl_socket socket;
    control_json answer = ctl_ask_on(socket, settings, request);
    if (control_result_of_name(answer.value("result", "")) != control_result::done) {
        return answer;
    }
    const watched_signals signals;
    watch_state state = {socket.fd(), output, {}, 0, {}, line_of};
    add_lines(state, std::move(answer));
    for (;;) {
        if (const watch_step end = next_step(state, signals)) {
            return *end;
        }
    }
}
