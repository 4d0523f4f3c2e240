#include "openssh/reporter/login_events.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "openssh/reporter/connection.h"
#include "openssh/reporter/login_attempt.h"
#include "openssh/reporter/login_event.h"
#include "openssh/reporter/recorder.h"

namespace openssh {

namespace {

constexpr const char* journal_path = "/run/systemd/journal/socket";

/// The connection's privileged process. Its children start with a copy, and send nothing.
struct attempt_state {
    pid_t pid = 0;
    bool is_logged_in = false;
    uint64_t login_time = 0;  ///< in nanoseconds since boot
    uint64_t time_limit = 0;  ///< the same; 0 for none
    peer_address peer;
    login_attempt attempt;
};

attempt_state state;

uint64_t nanoseconds_since_boot() {
    constexpr uint64_t second = 1'000'000'000;
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * second + static_cast<uint64_t>(now.tv_nsec);
}

/// An entry of the journal in the making. What does not fit is left out.
struct event_text {
    char bytes[login_event_size_max];
    size_t size = 0;

    void add(const char* format, ...) __attribute__((format(printf, 2, 3)));
    /// Adds a field unless its value is empty.
    void add_field(const char* name, const char* value);
};

/// Nothing that a client sends may begin a field of its own. sshd writes control characters in octal already.
void flatten(char* text, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        if (text[i] < ' ' || text[i] > '~') {
            text[i] = '?';
        }
    }
}

void event_text::add(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(bytes + size, sizeof(bytes) - size, format, arguments);
    va_end(arguments);
    if (length > 0 && static_cast<size_t>(length) + 1 < sizeof(bytes) - size) {
        flatten(bytes + size, static_cast<size_t>(length));
        size += static_cast<size_t>(length);
        bytes[size++] = '\n';
    }
}

void event_text::add_field(const char* name, const char* value) {
    if (value[0] != '\0') {
        add("%s=%s", name, value);
    }
}

void send_to(int socket, const char* path, const event_text& event) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    sendto(socket, event.bytes, event.size, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
           sizeof(address));
}

const char* vrf_name() {
    const char* name = getenv(vrf_variable);
    return name == nullptr ? "" : name;
}

void add_common_fields(event_text& event, const login_event_kind& kind, int priority) {
    event.add("PRIORITY=%d", priority);
    event.add("SYSLOG_FACILITY=%d", LOG_FAC(LOG_AUTH));
    event.add_field("SYSLOG_IDENTIFIER", server_log_name());
    event.add("SYSLOG_PID=%d", state.pid);
    // The journal cannot look up a process that has ended, and a session's process has left the server's service.
    event.add("OBJECT_SYSTEMD_UNIT=sshd_service_%s.service", vrf_name());
    event.add("MESSAGE_ID=%s", kind.message_id);
    event.add(LOGIN_EVENT_NAME "=%s", kind.name);
    event.add_field(LOGIN_EVENT_VRF, vrf_name());
    event.add_field(LOGIN_EVENT_USER, state.attempt.user);
    event.add_field(LOGIN_EVENT_SOURCE, state.peer.text);
    event.add(LOGIN_EVENT_PORT "=%u", state.peer.port);
}

void send_event(const event_text& event) {
    const int error = errno;
    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sender >= 0) {
        send_to(sender, journal_path, event);
        send_to(sender, login_event_socket, event);
        close(sender);
    }
    errno = error;
}

/// " (user NAME)": at the end of a message, where the name cannot pretend to be something else.
struct user_text {
    char text[sizeof(login_attempt::user) + 16] = "";
    explicit user_text(const login_attempt& attempt) {
        if (attempt.user[0] != '\0') {
            snprintf(text, sizeof(text), " (user %s)", attempt.user);
        }
    }
};

void send_failure() {
    const failure_reason reason = reason_of(state.attempt);
    if (reason.text[0] == '\0') {
        return;
    }
    const login_attempt& attempt = state.attempt;
    event_text event;
    event.add("MESSAGE=Login failed in VRF %s from %s port %u%s%s: %s%s", vrf_name(), state.peer.text, state.peer.port,
              attempt.methods[0] == '\0' ? "" : " with ", attempt.methods, reason.text, user_text(attempt).text);
    add_common_fields(event, login_event_failed, LOG_NOTICE);
    event.add_field(LOGIN_EVENT_METHOD, attempt.methods);
    event.add_field(LOGIN_EVENT_REASON, reason.text);
    event.add_field(LOGIN_EVENT_DETAIL, attempt.detail);
    event.add_field(LOGIN_EVENT_KEY, attempt.key);
    event.add(LOGIN_EVENT_REFUSED "=%u", attempt.refused);
    send_event(event);
}

void send_login() {
    const login_attempt& attempt = state.attempt;
    event_text event;
    event.add("MESSAGE=Login in VRF %s from %s port %u with %s%s", vrf_name(), state.peer.text, state.peer.port,
              attempt.accepted, user_text(attempt).text);
    add_common_fields(event, login_event_login, LOG_INFO);
    event.add_field(LOGIN_EVENT_METHOD, attempt.accepted);
    event.add_field(LOGIN_EVENT_KEY, attempt.key);
    event.add(LOGIN_EVENT_REFUSED "=%u", attempt.refused);
    send_event(event);
}

void send_logout() {
    constexpr uint64_t second = 1'000'000'000;
    const auto seconds = static_cast<unsigned long long>((nanoseconds_since_boot() - state.login_time) / second);
    event_text event;
    event.add("MESSAGE=Logout in VRF %s from %s port %u after %llu seconds%s", vrf_name(), state.peer.text,
              state.peer.port, seconds, user_text(state.attempt).text);
    add_common_fields(event, login_event_logout, LOG_INFO);
    event.add_field(LOGIN_EVENT_METHOD, state.attempt.accepted);
    event.add(LOGIN_EVENT_DURATION "=%llu", seconds);
    send_event(event);
}

bool is_connection_process() {
    return state.pid != 0 && state.pid == getpid();
}

bool is_login(const log_line& line) {
    return line.function == "monitor_child_preauth" && !line.before_authentication && line.text.starts_with("user ") &&
           line.text.ends_with(" authenticated by privileged process");
}

}  // namespace

const char* server_log_name() noexcept {
    static char name[128];
    const char* vrf = vrf_name();
    if (name[0] == '\0' && vrf[0] != '\0') {
        snprintf(name, sizeof(name), "norvosshd-%s", vrf);
    }
    return name;
}

bool is_for_connection(std::string_view arguments) noexcept {
    while (!arguments.empty()) {
        const std::string_view word = arguments.substr(0, arguments.find('\0'));
        // sshd starts itself with this option for each connection.
        if (word == "-R") {
            return true;
        }
        arguments.remove_prefix(word.size() < arguments.size() ? word.size() + 1 : arguments.size());
    }
    return false;
}

void begin_login_events() noexcept {
    const int error = errno;
    if (look_at_own_connection(&state.peer, nullptr)) {
        state.pid = getpid();
    }
    errno = error;
}

void follow_login_line(const log_line& line) noexcept {
    if (!is_connection_process() || state.is_logged_in) {
        return;
    }
    if (is_login(line)) {
        state.is_logged_in = true;
        state.login_time = nanoseconds_since_boot();
        send_login();
        return;
    }
    follow_attempt(state.attempt, line.text, !line.before_authentication);
}

void follow_ordinary_line(std::string_view written) noexcept {
    if (is_connection_process() && !state.is_logged_in) {
        bool before_authentication = false;
        const std::string_view message = plain_message(written, before_authentication);
        follow_attempt(state.attempt, message, !before_authentication);
    }
}

void note_time_limit(unsigned seconds) noexcept {
    constexpr uint64_t second = 1'000'000'000;
    state.time_limit = seconds == 0 ? 0 : nanoseconds_since_boot() + seconds * second;
}

void end_login_events() noexcept {
    if (!is_connection_process()) {
        return;
    }
    if (state.is_logged_in) {
        send_logout();
    } else {
        if (state.time_limit != 0 && nanoseconds_since_boot() >= state.time_limit) {
            follow_attempt(state.attempt, "Timeout before authentication for ", true);
        }
        send_failure();
    }
    state.pid = 0;
}

}  // namespace openssh
