#include "host/reload.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config_files/parameter_table.h"
#include "config_files/vrf_node.h"
#include "core/agent_state.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/shell_command.h"
#include "core/text.h"
#include "host/session_processes.h"
#include "host/trace_points.h"
#include "platform/managed_timer.h"
#include "vrf/server_lifecycle.h"

namespace {

constexpr uint32_t failure_timeout = 120;  ///< seconds
constexpr std::chrono::seconds sessions_timeout(5);
constexpr useconds_t poll_interval = 200;  ///< microseconds
constexpr size_t piece_size = 4096;
constexpr size_t text_size = 128;
constexpr int32_t detached = -1;

struct session_counters {
    uint32_t active;
    uint32_t terminated;
    uint32_t signals;
};

session_counters counters;

/// Restarts the servers if the reload does not follow.
struct failure_timer {
    int32_t handle = detached;
    managed_timer_leaf* leaf = nullptr;
};

failure_timer timer;

// --- The list of sessions --------------------------------------------------------------------------------------------

/// A shell command and the file it writes.
struct session_listing {
    const char* command;
    const char* file;
};

constexpr session_listing sessions = {paths::exec_session_command, paths::exec_session_file};
constexpr session_listing sessions_left = {paths::exec_session_check_command, paths::exec_session_check_file};

/// Removes a symbolic link planted under the file's name, which the shell would otherwise follow. Leaves errno alone:
/// it tells whether the command failed.
void clear_way(const char* file) {
    const int saved_errno = errno;
    unlink(file);
    errno = saved_errno;
}

/// Creates the list and opens it. Returns null with the error, which is 0 if the command failed without setting errno.
FILE* open_listing(const session_listing& listing, int* error) {
    clear_way(listing.file);
    if (run_shell_command(listing.command, listing_limit) != 0) {
        *error = errno;
        debug_print("Error:=%s(0x%x), cannot find running exec processess", platform_status_text(*error), *error);
        trace_error(host_trace_session_list, {listing.file, *error});
        return nullptr;
    }
    FILE* file = std::fopen(listing.file, "re");
    if (file == nullptr) {
        *error = errno;
        debug_print("Error:=%s(0x%x), pid file open failed", platform_status_text(*error), *error);
        trace_error(host_trace_session_list, {listing.file, *error});
    }
    return file;
}

uint32_t count_lines(FILE* file) {
    char piece[piece_size];
    uint32_t lines = 0;
    for (size_t size; (size = std::fread(piece, 1, sizeof piece, file)) > 0;) {
        const char* const end = piece + size;
        for (const char* at = piece; (at = static_cast<const char*>(std::memchr(at, '\n', end - at))) != nullptr;
             at++) {
            lines++;
        }
    }
    return lines;
}

/// The process id on a line; 0 if there is none that may be signalled. Signals go to process groups, so 0 and 1 would
/// mean this process's own group and every process on the machine.
int32_t session_id(const char* line) {
    char* end = nullptr;
    const int saved_errno = errno;
    errno = 0;
    const long number = std::strtol(line, &end, 10);
    const bool whole = errno == 0 && end != line && (*end == '\n' || *end == '\0');
    errno = saved_errno;
    const bool allowed = number > 1 && number <= INT32_MAX && number != getpid() && number != getpgrp();
    return whole && allowed ? static_cast<int32_t>(number) : 0;
}

/// Reads at most `ids_size` ids. Other processes may be listed, too: any user can name a process like a wrapper.
uint32_t read_ids(FILE* file, int32_t* ids, uint32_t ids_size) {
    uint32_t count = 0;
    char* line = nullptr;
    size_t capacity = 0;
    while (count < ids_size && getline(&line, &capacity, file) >= 0) {
        ids[count] = session_id(line);
        count += ids[count] != 0 && is_session_process(ids[count]) ? 1 : 0;
    }
    std::free(line);
    return count;
}

/// Counts the sessions on the list.
uint32_t count_sessions(FILE* file) {
    uint32_t count = 0;
    int32_t id = 0;
    while (std::feof(file) == 0 && std::ferror(file) == 0) {
        count += read_ids(file, &id, 1);
    }
    return count;
}

// --- Ending the sessions ---------------------------------------------------------------------------------------------

/// Logs an informational message that is also a debug line.
void announce(const char* text) {
    log_text(INFO_GENERAL, text);
    debug_print("%s", text);
}

void signal_session(int32_t id) {
    if (kill(-id, SIGTERM) == 0) {
        counters.signals++;
        return;
    }
    const int error = errno;
    if (error == ESRCH) {
        return;  // It has ended since it was listed.
    }
    char text[text_size];
    format_text(text, sizeof text, "Pid:=%d, Error:=%s(0x%x),Failed to send SIGTERM", id, platform_status_text(error),
                error);
    log_error(text);
    trace_error(host_trace_session_signal, {id, error});
}

void close_sessions() {
    uint32_t count = 0;
    int32_t* ids = nullptr;
    if (const int error = find_exec_sessions(&count, &ids); error != 0) {
        log_status(ERR_ERRNO, error, "Failed to get incoming session list, Sessions will not be gracefully closed");
        return;
    }
    counters.active = count;
    char text[text_size];
    format_text(text, sizeof text, "Active Sessions:=%d, Will close these sessions", static_cast<int>(count));
    announce(text);
    trace_event(host_trace_sessions_found, {count});
    for (uint32_t i = 0; i < count; i++) {
        signal_session(ids[i]);
    }
    format_text(text, sizeof text, "Active Sessions:=%d, SIGHUP sent:=%d, router is shutting down/reloading",
                static_cast<int>(counters.active), static_cast<int>(counters.signals));
    announce(text);
    trace_event(host_trace_sessions_signalled, {counters.active, counters.signals});
    std::free(ids);
}

/// Checks once how many wrappers are left. Returns false if there are any, or if that cannot be determined.
bool sessions_have_ended() {
    int error = 0;
    FILE* file = open_listing(sessions_left, &error);
    if (file == nullptr) {
        return false;
    }
    const uint32_t remaining = count_sessions(file);
    std::fclose(file);
    counters.terminated = counters.active > remaining ? counters.active - remaining : 0;
    return remaining == 0;
}

bool wait_for_sessions() {
    using clock = std::chrono::steady_clock;
    const clock::time_point deadline = clock::now() + sessions_timeout;
    do {
        usleep(poll_interval);
        if (sessions_have_ended()) {
            return true;
        }
    } while (clock::now() < deadline);
    return false;
}

// --- The failure timer -----------------------------------------------------------------------------------------------

void disarm_failure_timer() {
    if (timer.handle != detached) {
        managed_timer_detach(timer.handle);
        timer.handle = detached;
    }
    if (timer.leaf != nullptr) {
        managed_timer_leaf_stop(timer.leaf);
        managed_timer_leaf_free(timer.leaf);
        timer.leaf = nullptr;
    }
}

void failure_timer_handler(managed_timer_leaf*, void*) {
    log_shutdown(ERR_SHUTDOWN, counters.active, counters.terminated, counters.signals,
                 "System shutdown seems to have some issues, SSH will start the services again");
    trace_error(host_trace_reload_abandoned, {counters.active, counters.terminated, counters.signals});
    debug_print(
        "Active Sessions:=%d, Sessions Terminated:=%d, signal sent during shutdown:=%d,  system shutdown seems to have some issues, SSH will start the services again",
        static_cast<int>(counters.active), static_cast<int>(counters.terminated), static_cast<int>(counters.signals));
    counters = {};
    hold_servers_down(false);
    begin_command_group();
    for (vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        log_text(INFO_GENERAL, "Shutdown timer expires, starting daemon");
        restart_server_of(node);
    }
    end_command_group();
    disarm_failure_timer();
}

platform_status report_timer(platform_status status, const char* text) {
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, text);
        trace_error(host_trace_reload_timer, {text, status});
    }
    return status;
}

/// Without the timer nothing would start the servers again. A second notice restarts a running timer.
bool arm_failure_timer() {
    disarm_failure_timer();
    const bool armed =
        report_timer(managed_timer_attach(agent_handles.event_manager, failure_timer_handler, nullptr, &timer.handle),
                     "Failed to attach sys shutdown fail timer handler") == PLATFORM_OK &&
        report_timer(managed_timer_leaf_create(timer.handle, &timer.leaf),
                     "Failed to create sys shutdown fail leaf timer") == PLATFORM_OK &&
        report_timer(managed_timer_leaf_start(timer.leaf, failure_timeout),
                     "Failed to start sys shutdown fail leaf timer") == PLATFORM_OK;
    if (!armed) {
        log_error("Failed to start the shutdown failuretimer/ Will not proceed");
        disarm_failure_timer();
    }
    return armed;
}

// --- The notice ------------------------------------------------------------------------------------------------------

/// They stay down until the failure timer expires, whatever is configured meanwhile.
void stop_servers() {
    hold_servers_down(true);
    begin_command_group();
    for (const vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        log_text(INFO_GENERAL, "Router is shutting down, killing daemon");
        ssh_process_restart(0, node->name);
    }
    end_command_group();
}

void acknowledge(shelf_manager* shelf) {
    log_shutdown(INFO_SHUTDOWN, counters.active, counters.terminated, counters.signals,
                 "all active sessions terminated");
    debug_print("Act Sessions:=%d, SIGHUP sent:=%d,terminated:=%d, all active sessions terminated ",
                static_cast<int>(counters.active), static_cast<int>(counters.signals),
                static_cast<int>(counters.terminated));
    trace_event(host_trace_sessions_gone, {counters.active, counters.signals, counters.terminated});
    announce("Sending ack to shelf-mgr after graceful exit of all the active sessions");
    const platform_status status = shelf_manager_acknowledge_reload(shelf);
    if (status != PLATFORM_OK) {
        debug_print("Error:=%d, Failed to send system reload ack to shelf-mgr", static_cast<int>(status));
        trace_error(host_trace_reload_acknowledge, {status});
    }
}

}  // namespace

int find_exec_sessions(uint32_t* count, int32_t** ids) {
    *count = 0;
    *ids = nullptr;
    int error = 0;
    FILE* file = open_listing(sessions, &error);
    if (file == nullptr) {
        return error;
    }
    const uint32_t lines = count_lines(file);
    auto* found = static_cast<int32_t*>(std::calloc(lines > 0 ? lines : 1, sizeof(int32_t)));
    if (found == nullptr) {
        trace_error(host_trace_session_list, {sessions.file, ENOMEM});
        std::fclose(file);
        return ENOMEM;
    }
    std::rewind(file);
    *count = read_ids(file, found, lines);
    *ids = found;
    std::fclose(file);
    return 0;
}

void reload_notice_handler(shelf_manager* shelf, void*) {
    announce("shutdown event for ssh server received");
    trace_event(host_trace_reload);
    if (!arm_failure_timer()) {
        return;
    }
    stop_servers();
    close_sessions();
    if (!wait_for_sessions()) {
        trace_error(host_trace_sessions_remain, {counters.active, counters.terminated});
        return;
    }
    acknowledge(shelf);
}
