#include "linux/control/login_events.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <optional>

#include "common/number.h"
#include "common/text.h"
#include "linux/control/connection.h"
#include "linux/control/events.h"
#include "linux/reporting/log_message_internal.h"

namespace {

constexpr uint64_t microseconds_in_second = 1'000'000;
/// How many events are taken before others get their turn.
constexpr int events_at_once = 64;

struct event_receiver {
    int socket = -1;
    sd_event_source* source = nullptr;
    std::string path;
};

event_receiver receiver;

const std::string* find_field(const login_event_fields& fields, std::string_view name) {
    const auto found = fields.find(name);
    return found == fields.end() ? nullptr : &found->second;
}

control_json text_field(const login_event_fields& fields, std::string_view name) {
    const std::string* value = find_field(fields, name);
    return value == nullptr || value->empty() ? control_json() : control_json(*value);
}

control_json number_field(const login_event_fields& fields, std::string_view name) {
    const std::string* value = find_field(fields, name);
    const auto number = value == nullptr ? std::nullopt : number_parse<uint64_t>(*value);
    return number ? control_json(*number) : control_json();
}

uint64_t microseconds_since_epoch() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * microseconds_in_second + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

/// Receives one event into `buffer`. Returns its length; 0 for one that root has not sent, and -1 if there is none.
ssize_t receive(int socket, std::array<char, login_event_size_max>& buffer) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))] = {};
    iovec text = {.iov_base = buffer.data(), .iov_len = buffer.size()};
    msghdr message = {};
    message.msg_iov = &text;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t length = recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    const cmsghdr* passed = length >= 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    ucred sender = {};
    sender.uid = 1;
    if (passed != nullptr && passed->cmsg_level == SOL_SOCKET && passed->cmsg_type == SCM_CREDENTIALS) {
        memcpy(&sender, CMSG_DATA(passed), sizeof sender);
    }
    return length > 0 && sender.uid != 0 ? 0 : length;
}

void publish(std::string_view datagram) {
    const login_event_fields fields = login_event_split(datagram);
    if (find_field(fields, LOGIN_EVENT_NAME) != nullptr) {
        control_publish(login_event_subject, control_json_text(login_event_json(fields, microseconds_since_epoch())),
                        control_topic::sessions);
    }
}

int events_are_ready(sd_event_source* /*source*/, int fd, uint32_t /*events*/, void* /*userdata*/) {
    std::array<char, login_event_size_max> buffer;
    for (int count = 0; count < events_at_once; count++) {
        const ssize_t length = receive(fd, buffer);
        if (length < 0) {
            break;
        }
        try {
            publish(std::string_view(buffer.data(), static_cast<size_t>(length)));
        } catch (const std::exception& exception) {
            platform_log(LOG_ERR, "Failed to pass on an event about a login: %s", exception.what());
        }
    }
    return 0;
}

/// Returns the bound socket, to which only root can send, or an errno value as a negative number.
int open_socket(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return -ENAMETOOLONG;
    }
    memcpy(address.sun_path, path.data(), path.size());
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -errno;
    }
    const int on = 1;
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
        unlink(path.c_str());
    }
    const mode_t before = umask(0177);
    int result = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : -errno;
    umask(before);
    if (result == 0 && setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) {
        result = -errno;
    }
    if (result != 0) {
        close(fd);
        return result;
    }
    return fd;
}

}  // namespace

login_event_fields login_event_split(std::string_view datagram) {
    login_event_fields fields;
    while (!datagram.empty()) {
        const std::string_view line = datagram.substr(0, datagram.find('\n'));
        const size_t sign = line.find('=');
        if (sign != std::string_view::npos) {
            fields.emplace(line.substr(0, sign), text_escape_to_ascii(line.substr(sign + 1), login_event_size_max));
        }
        datagram.remove_prefix(std::min(datagram.size(), line.size() + 1));
    }
    return fields;
}

control_json login_event_json(const login_event_fields& fields, uint64_t microseconds) {
    control_json event = {{"time", text_utc_time(static_cast<int64_t>(microseconds / microseconds_in_second))},
                          {"event", text_field(fields, LOGIN_EVENT_NAME)},
                          {"vrf", text_field(fields, LOGIN_EVENT_VRF)},
                          {"user", text_field(fields, LOGIN_EVENT_USER)},
                          {"address", text_field(fields, LOGIN_EVENT_SOURCE)},
                          {"port", number_field(fields, LOGIN_EVENT_PORT)},
                          {"method", text_field(fields, LOGIN_EVENT_METHOD)},
                          {"reason", text_field(fields, LOGIN_EVENT_REASON)},
                          {"detail", text_field(fields, LOGIN_EVENT_DETAIL)},
                          {"key", text_field(fields, LOGIN_EVENT_KEY)},
                          {"refused", number_field(fields, LOGIN_EVENT_REFUSED)},
                          {"pid", number_field(fields, "SYSLOG_PID")}};
    if (const control_json duration = number_field(fields, LOGIN_EVENT_DURATION); !duration.is_null()) {
        event["duration"] = duration;
    }
    return event;
}

void login_events_start(sd_event* loop, const char* path) {
    login_events_stop();
    const int fd = open_socket(path);
    int result = fd < 0 ? fd : sd_event_add_io(loop, &receiver.source, fd, EPOLLIN, events_are_ready, nullptr);
    if (result >= 0) {
        result = sd_event_source_set_priority(receiver.source, CONTROL_PRIORITY_CONNECTION);
    }
    receiver.socket = fd;
    receiver.path = path;
    if (result < 0) {
        const auto status = static_cast<platform_status>(-result);
        platform_log(LOG_WARNING, "Error:=%s(0x%x), Path:=%s, Logins are not shown as they happen",
                     platform_status_text(status), status, path);
        login_events_stop();
    }
}

void login_events_stop() {
    receiver.source = sd_event_source_disable_unref(receiver.source);
    if (receiver.socket >= 0) {
        unlink(receiver.path.c_str());
        close(receiver.socket);
    }
    receiver = {};
}
