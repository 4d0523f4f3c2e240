#include "ssh_cfg_ctl/client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "control_protocol/frame.h"

namespace {

using steady = std::chrono::steady_clock;

/// How long a request is repeated if the agent had no free connection.
constexpr std::chrono::seconds retry_time(10);
constexpr std::chrono::milliseconds retry_pause(100);
/// Pause between polls for something that takes seconds.
constexpr std::chrono::milliseconds next_pause(200);
/// After this time the user is informed about the wait.
constexpr std::chrono::seconds patience(5);

control_json unreachable(const std::string& message) {
    return control_answer(control_result::unreachable, message);
}

std::string why_not_connected(int error) {
    switch (error) {
        case ENOENT:
        case ECONNREFUSED:
            return "it is not running (systemctl status ssh_cfg_agent)";
        case EACCES:
        case EPERM:
            return "permission denied; be root or a member of the group sshcfg";
        case EAGAIN:
            return "it is not accepting connections";
        default:
            return strerror(error);
    }
}

int connect_to(int fd, const ctl_connection_settings& settings) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (settings.socket_path.size() >= sizeof address.sun_path) {
        return ENAMETOOLONG;
    }
    memcpy(address.sun_path, settings.socket_path.data(), settings.socket_path.size());
    // Connecting blocks while the agent's queue is full; the timeout limits that, too.
    const timeval timeout = {static_cast<time_t>(settings.timeout), 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    while (connect(fd, generic, sizeof address) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

/// Sends the whole text. A failure is ignored: the agent may have answered before it closed, and its answer says more.
void send_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) {
            return;
        }
        text.remove_prefix(count < 0 ? 0 : static_cast<size_t>(count));
    }
}

enum class wait_end : uint8_t { readable, timeout };

wait_end wait_readable(int fd, const ctl_connection_settings& settings, bool is_told) {
    const auto start = steady::now();
    const auto end = start + std::chrono::seconds(settings.timeout);
    bool told = is_told;
    for (auto now = start; now < end; now = steady::now()) {
        if (!told && now >= start + patience) {
            fputs("ssh_cfg_ctl: waiting for the agent ...\n", stderr);
            told = true;
        }
        const auto until = told ? end : std::min(end, start + patience);
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - now).count() + 1;
        pollfd poll_entry = {fd, POLLIN, 0};
        if (poll(&poll_entry, 1, static_cast<int>(left)) > 0) {
            return wait_end::readable;
        }
    }
    return wait_end::timeout;
}

control_json receive_document(int fd, const ctl_connection_settings& settings, bool is_told) {
    static char buffer[65536];
    control_frame_reader frame;
    while (control_frame_progress(frame) == control_frame_state::incomplete) {
        if (wait_readable(fd, settings, is_told) == wait_end::timeout) {
            return unreachable("the agent did not answer within " + std::to_string(settings.timeout) +
                               " seconds; a change may still be carried out");
        }
        const ssize_t count = recv(fd, buffer, std::min(control_frame_missing(frame), sizeof buffer), 0);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return unreachable("the agent closed the connection before answering; a change may or may not be stored");
        }
        control_frame_take(frame, std::string_view(buffer, static_cast<size_t>(count)));
    }
    if (control_frame_progress(frame) == control_frame_state::too_large) {
        return control_answer(control_result::failed, "the agent's answer exceeds the maximum frame size");
    }
    return ctl_parse_answer(frame.document);
}

/// Shows the reports that come before the answer.
control_json receive_answer(int fd, const ctl_connection_settings& settings) {
    ctl_progress_display display(settings.progress);
    control_json document = receive_document(fd, settings, !settings.tell_waiting);
    while (document.contains("progress") && document["progress"].is_object()) {
        display.show(document["progress"]);
        document = receive_document(fd, settings, true);
    }
    return document;
}

control_json ask_once(ctl_socket& socket, const ctl_connection_settings& settings, const std::string& frame) {
    int error = socket.reopen();
    if (error == 0) {
        error = connect_to(socket.fd(), settings);
    }
    if (error != 0) {
        return unreachable("cannot reach the agent at " + settings.socket_path + ": " + why_not_connected(error));
    }
    send_all(socket.fd(), frame);
    return receive_answer(socket.fd(), settings);
}

bool wants_retry(const control_json& answer) {
    const auto retry = answer.find("retry");
    return retry != answer.end() && retry->is_boolean() && retry->get<bool>();
}

}  // namespace

ctl_socket::~ctl_socket() {
    if (descriptor >= 0) {
        close(descriptor);
    }
}

int ctl_socket::reopen() {
    if (descriptor >= 0) {
        close(descriptor);
    }
    descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return descriptor < 0 ? errno : 0;
}

control_json ctl_parse_answer(const std::string& document) {
    std::string error;
    const std::optional<control_json> answer = control_json_parse(document, error);
    if (!answer.has_value() || !answer->is_object()) {
        return control_answer(control_result::failed, "cannot parse the agent's answer: " + error);
    }
    return *answer;
}

control_json ctl_ask(const ctl_connection_settings& settings, const control_json& request) {
    ctl_socket socket;
    return ctl_ask_on(socket, settings, request);
}

control_json ctl_ask_to_the_end(const ctl_connection_settings& settings, const control_json& request) {
    control_json answer = ctl_ask(settings, request);
    while (answer.contains("next") && answer["next"].is_object()) {
        std::this_thread::sleep_for(next_pause);
        const control_json next = answer["next"];
        answer = ctl_ask(settings, next);
    }
    return answer;
}

control_json ctl_ask_on(ctl_socket& socket, const ctl_connection_settings& settings, const control_json& request) {
    control_json whole = request;
    if (settings.progress != ctl_progress::none) {
        whole["progress"] = true;
    }
    const std::string document = control_json_text(whole);
    if (document.size() > CONTROL_FRAME_MAX) {
        return control_answer(control_result::refused, "the request is larger than 16 MiB; split it");
    }
    const auto header = control_frame_header(static_cast<uint32_t>(document.size()));
    const std::string frame = std::string(header.begin(), header.end()) + document;
    const auto start = steady::now();
    control_json answer = ask_once(socket, settings, frame);
    while (wants_retry(answer) && steady::now() - start < retry_time) {
        std::this_thread::sleep_for(retry_pause);
        answer = ask_once(socket, settings, frame);
    }
    return answer;
}
