#include "linux/control/control.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "control_protocol/frame.h"
#include "linux/control/calls.h"
#include "linux/control/events.h"
#include "linux/control/login_events.h"
#include "linux/control/server.h"
#include "linux/host/shelf_manager_internal.h"
#include "linux/process/process_manager_internal.h"
#include "linux/reporting/log_message_internal.h"

namespace {

struct open_socket {
    control_server* server = nullptr;
    std::string path;
};

open_socket control;

std::optional<gid_t> find_group(const char* name) {
    std::vector<char> buffer(16384);
    group entry = {};
    group* found = nullptr;
    while (getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
        buffer.resize(buffer.size() * 2);
    }
    return found == nullptr ? std::nullopt : std::optional<gid_t>(entry.gr_gid);
}

/// Returns 0 if `path` is free or holds a socket, which may be replaced; otherwise an errno value.
int check_place(const std::string& path) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        return errno == ENOENT ? 0 : errno;
    }
    return S_ISSOCK(status.st_mode) ? 0 : EEXIST;
}

/// Binds so that unauthorised peers never get in: the mode forbids access first, and allows it last.
int bind_closed(int fd, const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return ENAMETOOLONG;
    }
    memcpy(address.sun_path, path.data(), path.size());
    const mode_t before = umask(0177);
    const int result = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
    umask(before);
    return result;
}

int open_for_group(const std::string& path, std::optional<gid_t> group_id) {
    if (!group_id.has_value()) {
        return 0;
    }
    const bool opened = chown(path.c_str(), 0, *group_id) == 0 && chmod(path.c_str(), 0660) == 0;
    return opened ? 0 : errno;
}

/// Moves the listening socket `fd` to `path` in one step, so that nobody finds a socket there that does not listen yet.
int put_in_place(int fd, const std::string& path, std::optional<gid_t> group_id) {
    const std::string temporary = path + ".new";
    int result = check_place(path);
    if (result == 0 && unlink(temporary.c_str()) != 0 && errno != ENOENT) {
        result = errno;
    }
    if (result == 0) {
        result = bind_closed(fd, temporary);
    }
    if (result != 0) {
        return result;
    }
    result = open_for_group(temporary, group_id);
    if (result == 0 && (listen(fd, SOMAXCONN) != 0 || rename(temporary.c_str(), path.c_str()) != 0)) {
        result = errno;
    }
    if (result != 0) {
        unlink(temporary.c_str());
    }
    return result;
}

platform_status open_at(const std::string& path) {
    const std::optional<gid_t> group_id = find_group(control_group);
    if (!group_id.has_value()) {
        platform_log(LOG_WARNING, "Group %s does not exist: only root may use the control socket", control_group);
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int result = fd < 0 ? errno : put_in_place(fd, path, group_id);
    if (result != 0) {
        if (fd >= 0) {
            close(fd);
        }
        return static_cast<platform_status>(result);
    }
    control.server = control_server_create(fd, {group_id, find_group(control_administrators)}, control_limits(),
                                           {control_call, control_may_be_answered_meanwhile, control_progress});
    control.path = path;
    return PLATFORM_OK;
}

}  // namespace

platform_status control_open(const char* path) {
    if (control.server != nullptr) {
        return EALREADY;
    }
    platform_status status = ENOMEM;
    const char* place = path == nullptr ? control_socket_path : path;
    try {
        status = open_at(place);
    } catch (const std::exception&) {
        status = ENOMEM;
    }
    if (status != PLATFORM_OK) {
        platform_log(LOG_ERR, "Error:=%s(0x%x), Path:=%s, Failed to open the control socket",
                     platform_status_text(status), status, place);
    }
    return status;
}

platform_status control_start(sd_event* loop) {
    const platform_status status = control_start_standby(loop);
    if (status == PLATFORM_OK && control.server != nullptr) {
        // Reloads are announced through the socket, so the shelf manager comes and goes with it.
        shelf_manager_link(true);
        if (control.path == control_socket_path) {
            login_events_start(loop);
        }
    }
    return status;
}

platform_status control_start_standby(sd_event* loop) {
    if (control.server == nullptr) {
        return PLATFORM_OK;
    }
    const platform_status status = control_server_start(control.server, loop);
    process_manager_at_progress([] { control_server_serve_meanwhile(control.server); });
    if (status == PLATFORM_OK || status == EALREADY) {
        return PLATFORM_OK;
    }
    platform_log(LOG_ERR, "Error:=%s(0x%x), Failed to start the control socket", platform_status_text(status), status);
    return status;
}

void control_stop_standby() {
    if (control.server != nullptr) {
        control_server_stop(control.server);
    }
}

size_t control_publish(std::string_view subject, std::string_view document, control_topic topic) {
    if (control.server == nullptr) {
        return 0;
    }
    control_server_publish(control.server, subject, document, topic);
    return control_server_watchers(control.server, topic);
}

void control_close() {
    if (control.server == nullptr) {
        return;
    }
    shelf_manager_link(false);
    login_events_stop();
    process_manager_at_progress(nullptr);
    unlink(control.path.c_str());
    control_server_free(control.server);
    control = {};
}
