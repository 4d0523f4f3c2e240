#include "platform/process_manager.h"

#include <poll.h>
#include <sys/inotify.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/files.h"
#include "common/number.h"
#include "linux/process/node_lock.h"
#include "linux/process/paths.h"
#include "linux/process/platform_config.h"
#include "linux/process/process_manager_internal.h"
#include "linux/reporting/log_message_internal.h"

namespace {

struct {
    bool counted;
    bool ready;
    uint32_t respawn_count;
    uint32_t role;
    time_t started;
} state = {false, false, 0, PROCESS_ROLE_PRIMARY, 0};

constexpr size_t respawn_file_max = 64;

/// An editor may briefly remove the file while it writes the new one, so a change is read only after it has settled.
constexpr int settle_milliseconds = 200;

void log_problems(const std::vector<std::string>& problems) {
    for (const std::string& problem : problems) {
        platform_log(LOG_ERR, "%s", problem.c_str());
    }
}

/// The number in the file: 0 if there is none, which means the first start. Any other content also counts as none,
/// because then the configuration files are rewritten, which is always correct.
uint32_t read_count() {
    std::string text;
    const platform_status status = file_read(runtime_respawn_file, respawn_file_max, text, file_links::refused);
    if (status == ENOENT) {
        return 0;
    }
    if (status != PLATFORM_OK) {
        platform_log(LOG_WARNING, "Cannot read %s: %s", runtime_respawn_file, platform_status_text(status));
        return 0;
    }
    const std::string_view line = text;
    const std::optional<uint32_t> number =
        line.ends_with('\n') ? number_parse<uint32_t>(line.substr(0, line.size() - 1)) : std::nullopt;
    if (!number) {
        platform_log(LOG_WARNING, "%s does not contain a number", runtime_respawn_file);
    }
    return number.value_or(0);
}

/// In one step, so that a kill at any moment leaves the old number or the new one.
platform_status count_start() {
    const uint32_t before = read_count();
    state.respawn_count = before == UINT32_MAX ? before : before + 1;
    return file_replace(runtime_respawn_file, std::to_string(state.respawn_count) + '\n', {.mode = 0644});
}

/// Drains the event queue; the contents of the events are not needed.
void discard_events(int fd) {
    char buffer[4096];
    while (read(fd, buffer, sizeof buffer) > 0) {
    }
}

/// Blocks until a file of the directory has changed and then stayed unchanged for a moment. Returns 0 or -1.
int wait_for_change(int fd) {
    pollfd waiting = {fd, POLLIN, 0};
    int timeout = -1;
    for (;;) {
        const int result = poll(&waiting, 1, timeout);
        if (result < 0 && errno != EINTR) {
            return -1;
        }
        if (result == 0) {
            return 0;
        }
        if (result > 0) {
            discard_events(fd);
            timeout = settle_milliseconds;
        }
    }
}

/// Only a valid line or a missing file ends the wait: an error in the file must not create a second primary.
bool is_primary() {
    platform_config config = {};
    std::vector<std::string> problems;
    const platform_status status = platform_config_read(config, problems);
    log_problems(problems);
    if (status == ENOENT) {
        return true;
    }
    return config.role_is_stated && config.role == PROCESS_ROLE_PRIMARY;
}

/// The watch is set up before the file is read, so no change is missed. Returns 0 or -1.
int wait_until_primary(int fd) {
    if (inotify_add_watch(fd, platform_config_directory, IN_CLOSE_WRITE | IN_MOVE | IN_DELETE | IN_ONLYDIR) < 0) {
        return errno == ENOENT ? 0 : -1;
    }
    while (!is_primary()) {
        if (wait_for_change(fd) != 0) {
            return -1;
        }
    }
    return 0;
}

}  // namespace

void process_manager_count_start() {
    if (state.counted) {
        return;
    }
    state.counted = true;
    state.started = time(nullptr);
    platform_status status = ENOMEM;
    try {
        status = count_start();
    } catch (const std::exception&) {
        status = ENOMEM;
    }
    if (status != PLATFORM_OK) {
        platform_log(LOG_WARNING, "Cannot write %s, so a restart will look like a first start: %s",
                     runtime_respawn_file, platform_status_text(status));
    }
    // Also logged because this connects to the journal, which is impossible once the process has run out of
    // descriptors.
    platform_log(LOG_INFO, "Starting the agent, start %u since the last clean stop", state.respawn_count);
}

uint32_t process_manager_respawn_count(void) {
    return state.respawn_count;
}

uint32_t process_manager_role(void) {
    try {
        platform_config config = {};
        std::vector<std::string> problems;
        platform_config_read(config, problems);
        log_problems(problems);
        state.role = config.role;
    } catch (const std::exception&) {
        platform_log(LOG_ERR, "Cannot read %s: out of memory", platform_config_file);
    }
    return state.role;
}

void process_manager_ready(void) {
    const errno_keeper keeper;
    state.ready = true;
    const int result = sd_notify(0, "READY=1");
    if (result < 0) {
        platform_log(LOG_WARNING, "Cannot report readiness to the service manager: %s", strerror(-result));
    }
}

int process_manager_wait_primary(void) {
    const int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (fd < 0) {
        platform_log(LOG_ERR, "Cannot wait for the primary role: %s", strerror(errno));
        return -1;
    }
    int result = -1;
    try {
        result = wait_until_primary(fd);
    } catch (const std::exception&) {
        errno = ENOMEM;
    }
    if (result != 0) {
        platform_log(LOG_ERR, "Cannot wait for the primary role: %s", strerror(errno));
    } else {
        state.role = PROCESS_ROLE_PRIMARY;
    }
    close(fd);
    return result;
}

process_status process_manager_status() {
    return {state.role, state.respawn_count, state.ready, static_cast<uint64_t>(state.started)};
}

void process_manager_reset() {
    state = {false, false, 0, PROCESS_ROLE_PRIMARY, 0};
    node_lock_release();
}
