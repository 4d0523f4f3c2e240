#include "platform/process_manager.h"

#include <syslog.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
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
#include "linux/process/primary_wait.h"
#include "linux/process/process_manager_internal.h"
#include "linux/process/termination.h"
#include "linux/reporting/log_message_internal.h"

namespace {

struct {
    bool counted;
    bool ready;     ///< the agent has said that it is ready
    bool notified;  ///< and the service manager knows
    uint32_t respawn_count;
    uint32_t role;
    time_t started;
    uint64_t reported;  ///< when progress was last reported, in microseconds
} state = {false, false, false, 0, PROCESS_ROLE_PRIMARY, 0, 0};

process_step current_step;

struct {
    void (*work)() = nullptr;
    bool running = false;
} at_progress;

constexpr size_t respawn_file_max = 64;

/// Progress is reported at most this often, in microseconds, and four times within the watchdog's time.
constexpr uint64_t report_interval = 1'000'000;

/// While the agent starts or ends, each report gives it this long until the next one, like the unit's WatchdogSec.
constexpr char extend_timeout[] = "WATCHDOG=1\nEXTEND_TIMEOUT_USEC=120000000";

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

uint64_t monotonic_time() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

uint64_t time_between_reports() {
    uint64_t watchdog = 0;
    return sd_watchdog_enabled(0, &watchdog) > 0 ? std::min(watchdog / 4, report_interval) : report_interval;
}

/// In one step, so that a kill at any moment leaves the old number or the new one.
platform_status count_start() {
    const uint32_t before = read_count();
    state.respawn_count = before == UINT32_MAX ? before : before + 1;
    return file_replace(runtime_respawn_file, std::to_string(state.respawn_count) + '\n', {.mode = 0644});
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
    state.ready = true;
}

void process_manager_notify_ready() {
    if (!state.ready) {
        return;
    }
    state.notified = true;
    const errno_keeper keeper;
    const int result = sd_notify(0, "READY=1");
    if (result < 0) {
        platform_log(LOG_WARNING, "Cannot report readiness to the service manager: %s", strerror(-result));
    }
}

void process_manager_waiting(void) {
    const errno_keeper keeper;
    if (at_progress.work != nullptr && !at_progress.running) {
        at_progress.running = true;
        at_progress.work();
        at_progress.running = false;
    }
}

void process_manager_progress(void) {
    const errno_keeper keeper;
    const uint64_t time = monotonic_time();
    if (time - state.reported >= time_between_reports()) {
        state.reported = time;
        // A report that is lost is followed by the next one.
        sd_notify(0, state.notified && !termination_is_pending() ? "WATCHDOG=1" : extend_timeout);
    }
    process_manager_waiting();
}

void process_manager_step(const char* work, uint32_t done, uint32_t total) {
    try {
        current_step = {work, done, total};
    } catch (const std::exception&) {
        current_step = {};
    }
    process_manager_progress();
}

const process_step& process_manager_current_step() {
    return current_step;
}

void process_manager_forget_step() {
    current_step = {};
}

void process_manager_at_progress(void (*work)()) {
    at_progress.work = work;
}

int process_manager_wait_primary(void) {
    process_manager_notify_ready();
    int error = ENOMEM;
    try {
        error = primary_wait();
    } catch (const std::exception&) {
        error = ENOMEM;
    }
    if (error != 0) {
        platform_log(LOG_ERR, "Cannot wait for the primary role: %s", strerror(error));
        errno = error;
        return -1;
    }
    state.role = PROCESS_ROLE_PRIMARY;
    return 0;
}

process_status process_manager_status() {
    return {state.role, state.respawn_count, state.ready, static_cast<uint64_t>(state.started)};
}

void process_manager_reset() {
    state = {false, false, false, 0, PROCESS_ROLE_PRIMARY, 0, 0};
    current_step = {};
    at_progress = {};
    node_lock_release();
}
