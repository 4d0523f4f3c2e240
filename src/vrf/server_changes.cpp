#include "vrf/server_changes.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <new>
#include <vector>

#include "config_files/parameter_table.h"
#include "core/debug.h"
#include "core/shell_command.h"
#include "core/text.h"
#include "platform/enforcement.h"
#include "platform/process_manager.h"
#include "vrf/protection.h"
#include "vrf/server_outcome.h"
#include "vrf/trace_points.h"
#include "vrf/unit_states.h"
#include "vrf/vrf_namespace.h"

namespace {

constexpr char unit_word[] = " sshd_service_";
constexpr size_t verb_size = sizeof "systemctl restart";
constexpr size_t unit_command_size = verb_size + sizeof unit_word + vrf_name_size;
constexpr char unit_type[] = ".service";
constexpr size_t units_size = server_batch_max * (sizeof unit_word + vrf_name_size + sizeof unit_type) + 1;

/// The subject under which a failure of systemd to read the units is reported.
constexpr char units_subject[] = "units";

/// The VRFs whose servers are changed by one command.
struct server_batch {
    char names[server_batch_max][vrf_name_size];
    size_t count;
};

enum class unit_query { not_made, answered, failed };

struct put_off_state {
    bool announced = false;   ///< changes are postponed
    bool reload_due = false;  ///< a daemon-reload is due
    server_batch stops = {};
    unit_query query = unit_query::not_made;
    std::vector<unit_state> units = {};  ///< the answer
};

put_off_state state;

void add_to(server_batch& batch, const char* vrf_name) {
    copy_text(batch.names[batch.count], vrf_name_size, vrf_name);
    batch.count++;
}

void remove_from(server_batch& batch, const char* vrf_name) {
    for (size_t i = 0; i < batch.count; i++) {
        if (std::strcmp(batch.names[i], vrf_name) == 0) {
            batch.count--;
            std::memmove(batch.names[i], batch.names[i + 1], (batch.count - i) * vrf_name_size);
            return;
        }
    }
}

/// Lists the units of a batch for the end of a command line. `type` is appended to each name; `systemctl list-units` does
/// not recognize the names without it.
void list_units(const server_batch& batch, const char* type, char (&units)[units_size]) {
    size_t length = 0;
    units[0] = '\0';
    for (size_t i = 0; i < batch.count; i++) {
        length += format_text(units + length, units_size - length, "%s%s%s", unit_word, batch.names[i], type);
    }
}

uint64_t microseconds_now() {
    constexpr uint64_t microseconds = 1000000;
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * microseconds + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

/// The result of systemctl for the units of a batch, and their states afterwards.
struct batch_result {
    uint64_t begun;  ///< when the command was run; CLOCK_MONOTONIC, microseconds
    int status;      ///< result of run_shell_command
    int error;       ///< errno if that is -1
    bool states_known;
    std::vector<unit_state> states;
};

/// Queries the named units, or all if `units` is null.
bool read_states(int (*query)(std::vector<unit_state>*, const char*), const char* units,
                 std::vector<unit_state>& states) {
    try {
        return query(&states, units) == 0;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void forget_units() {
    state.query = unit_query::not_made;
    state.units.clear();
}

/// Queries the states of a batch's units. If all jobs succeeded, the active states suffice, because they show whether a
/// server has failed since.
bool query_batch(const server_batch& batch, bool succeeded, std::vector<unit_state>& states) {
    char units[units_size];
    list_units(batch, succeeded ? unit_type : "", units);
    return read_states(succeeded ? read_active_states : read_unit_states, units + 1, states);
}

batch_result run_for(const char* verb, const server_batch& batch) {
    char units[units_size];
    list_units(batch, "", units);
    char command[verb_size + units_size];
    format_text(command, sizeof command, "%s%s", verb, units);
    batch_result result = {};
    result.begun = microseconds_now();
    result.status = run_shell_command(command, systemctl_limit);
    result.error = errno;
    result.states_known = query_batch(batch, result.status == 0, result.states);
    forget_units();
    return result;
}

/// Reports the outcome for one unit of a batch. If it failed, errno is the reason.
void report_unit(const char* verb, const char* vrf_name, const batch_result& result, bool succeeded) {
    char command[unit_command_size];
    format_text(command, sizeof command, "%s%s%s", verb, unit_word, vrf_name);
    const bool was_run = result.status != -1;
    errno = was_run ? EIO : result.error;
    if (succeeded) {
        report_server(vrf_name, command, 0);
    } else {
        report_server(vrf_name, command, was_run ? 1 : -1);
    }
}

// --- Stops -----------------------------------------------------------------------------------------------------------

bool has_stopped(const char* vrf_name, const batch_result& result) {
    if (!result.states_known) {
        return nothing_was_left_running(result.status);
    }
    const unit_state* unit = find_unit_state(result.states, vrf_name);
    return unit == nullptr || is_stopped(*unit);
}

void stop_servers() {
    if (state.stops.count == 0) {
        return;
    }
    constexpr char verb[] = "systemctl stop";
    const server_batch batch = state.stops;
    state.stops.count = 0;
    process_manager_step("stopping servers", 0, static_cast<uint32_t>(batch.count));
    const batch_result result = run_for(verb, batch);
    for (size_t i = 0; i < batch.count; i++) {
        const char* vrf_name = batch.names[i];
        const bool stopped = has_stopped(vrf_name, result);
        report_unit(verb, vrf_name, result, stopped);
        if (stopped) {
            server_has_stopped(vrf_name);
        } else {
            server_has_not_stopped(vrf_name);
        }
    }
}

// --- Restarts --------------------------------------------------------------------------------------------------------

/// Whether the server is running and has really been restarted.
bool has_started(const char* vrf_name, const batch_result& result) {
    if (!result.states_known) {
        return result.status == 0;
    }
    const unit_state* unit = find_unit_state(result.states, vrf_name);
    if (unit == nullptr || !is_running(*unit)) {
        return false;
    }
    return result.status == 0 || (unit->started != UINT64_MAX && unit->started >= result.begun);
}

/// An earlier handler of the commit may have requested an unblock of the VRF.
void keep_blocked(const char* vrf_name) {
    const int error = errno;
    block_vrf(vrf_name);
    errno = error;
}

void settle_restart(const char* verb, const char* vrf_name, const batch_result& result) {
    const bool started = has_started(vrf_name, result);
    if (vrf_node* node = find_vrf_node(vrf_name); node != nullptr) {
        node->server_started = started && node->start_put_off != 0 ? 1 : node->server_started;
        node->restart_put_off = 0;
        node->start_put_off = 0;
        node->blocked_until_end = 0;
    }
    report_unit(verb, vrf_name, result, started);
    if (started) {
        server_has_started(vrf_name);
    } else {
        keep_blocked(vrf_name);
        server_has_not_started(vrf_name);
    }
}

/// The next VRFs whose servers are due for a restart.
server_batch next_restarts() {
    server_batch batch = {};
    for (const vrf_node* node = server_config.nodes; node != nullptr && batch.count < server_batch_max;
         node = node->next) {
        if (node->restart_put_off != 0) {
            debug_print("%s, vrf:=%s, will start sshd", "ssh_process_restart", node->name);
            add_to(batch, node->name);
        }
    }
    return batch;
}

uint32_t count_of_restarts() {
    uint32_t count = 0;
    for (const vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        count += node->restart_put_off != 0 ? 1 : 0;
    }
    return count;
}

void restart_servers() {
    constexpr char verb[] = "systemctl restart";
    const uint32_t total = count_of_restarts();
    for (server_batch batch = next_restarts(); batch.count > 0; batch = next_restarts()) {
        process_manager_step("restarting servers", total - count_of_restarts(), total);
        const batch_result result = run_for(verb, batch);
        for (size_t i = 0; i < batch.count; i++) {
            settle_restart(verb, batch.names[i], result);
        }
    }
}

/// Unblocks the VRFs that need no restart.
void unblock_the_others() {
    for (vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        if (node->blocked_until_end != 0) {
            node->blocked_until_end = 0;
            if (node->start_failed == 0) {
                unblock_vrf(node->name);
            }
        }
    }
}

void block_until_end(vrf_node* node) {
    if (node->blocked_until_end == 0) {
        node->blocked_until_end = 1;
        block_vrf(node->name);
    }
}

}  // namespace

void put_off_server_changes() {
    state.announced = true;
    forget_units();
}

void carry_out_server_changes() {
    state.announced = false;
    if (state.reload_due) {
        process_manager_step("letting systemd read the units", 0, 0);
        reload_units();
    }
    stop_servers();
    restart_servers();
    unblock_the_others();
}

bool put_off_restart(const char* vrf_name) {
    vrf_node* node = state.announced ? find_vrf_node(vrf_name) : nullptr;
    if (node == nullptr) {
        return false;
    }
    remove_from(state.stops, vrf_name);
    node->restart_put_off = 1;
    block_until_end(node);
    return true;
}

bool put_off_stop(const char* vrf_name) {
    if (!state.announced) {
        return false;
    }
    if (vrf_node* node = find_vrf_node(vrf_name); node != nullptr) {
        node->restart_put_off = 0;
        node->start_put_off = 0;
        block_until_changes_are_carried_out(node);
    }
    remove_from(state.stops, vrf_name);
    add_to(state.stops, vrf_name);
    if (state.stops.count == server_batch_max) {
        stop_servers();
    }
    return true;
}

bool put_off_unit_reload() {
    state.reload_due = state.reload_due || state.announced;
    return state.announced;
}

std::optional<postponed_unit> query_postponed_unit(const char* vrf_name) {
    if (!state.announced) {
        return std::nullopt;
    }
    if (state.query == unit_query::not_made) {
        state.query = read_states(read_unit_states, nullptr, state.units) ? unit_query::answered : unit_query::failed;
    }
    if (state.query == unit_query::failed) {
        return std::nullopt;
    }
    const unit_state* unit = find_unit_state(state.units, vrf_name);
    return unit == nullptr ? postponed_unit{false, true}
                           : postponed_unit{begins_with(unit->active_state.c_str(), "active"), !unit->needs_reload};
}

int reload_units() {
    const int status = run_shell_command("systemctl daemon-reload", systemctl_limit);
    state.reload_due = status != 0;
    if (status == 0) {
        enforcement_restored(units_subject);
        return 0;
    }
    const int error = status == -1 ? errno : EIO;
    enforcement_failed(units_subject,
                       error == ETIMEDOUT ? "systemctl daemon-reload timed out" : "systemctl daemon-reload failed");
    debug_print("Error:=%s(0x%x), Failed to reload systemctl ", platform_status_text(error), error);
    trace_error(vrf_trace_daemon_reload, {"", error});
    errno = error;
    return -1;
}

bool unit_reload_is_due() {
    return state.reload_due && !state.announced;
}

void block_until_changes_are_carried_out(vrf_node* node) {
    if (state.announced && vrf_namespace_exists(node->name)) {
        block_until_end(node);
    }
}
