#include "vrf/server_lifecycle.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>

#include "config_files/config_writer.h"
#include "config_files/files.h"
#include "config_files/line_editor.h"
#include "config_files/restart_record.h"
#include "config_files/vrf_node.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/shell_command.h"
#include "core/text.h"
#include "platform/enforcement.h"
#include "vrf/protection.h"
#include "vrf/server_changes.h"
#include "vrf/server_outcome.h"
#include "vrf/service_unit.h"
#include "vrf/shell_command.h"
#include "vrf/trace_points.h"

namespace {

constexpr size_t line_size = 4096;
constexpr size_t systemctl_command_size = 256;

bool servers_held_down = false;

/// The server will be started together with the others. Returns 0.
int report_held_down(const char* vrf_name) {
    debug_print("%s, vrf:=%s, the router is about to reload, server not started", "ssh_process_restart", vrf_name);
    return 0;
}

/// The unit file is missing: returns 0 if the VRF's server has not been started yet, -1 if it has.
int report_missing_unit(const char* vrf_name) {
    debug_print("%s, Service file doesn't exist for vrf:=%s", "ssh_process_restart", vrf_name);
    const vrf_node* node = find_vrf_node(vrf_name);
    if (node != nullptr && node->server_started != 0) {
        log_error("Service file doesn't exist");
        return -1;
    }
    trace_error(vrf_trace_unit_missing, {vrf_name});
    return 0;
}

int start_server(const char* vrf_name) {
    if (put_off_restart(vrf_name)) {
        return 0;
    }
    debug_print("%s, vrf:=%s, will start sshd", "ssh_process_restart", vrf_name);
    block_vrf(vrf_name);
    char command[systemctl_command_size];
    format_text(command, sizeof command, "systemctl restart sshd_service_%s", vrf_name);
    int status = 0;
    const bool failed = shell_command_failed(command, &status);
    report_server(vrf_name, command, status);
    if (failed) {
        server_has_not_started(vrf_name);
        return -1;
    }
    server_has_started(vrf_name);
    return 0;
}

int stop_server(const char* vrf_name) {
    if (put_off_stop(vrf_name)) {
        return 0;
    }
    char command[systemctl_command_size];
    format_text(command, sizeof command, "systemctl stop sshd_service_%s", vrf_name);
    int status = 0;
    const bool failed = shell_command_failed(command, &status);
    report_server(vrf_name, command, nothing_was_left_running(status) ? 0 : status);
    if (failed) {
        server_has_not_stopped(vrf_name);
        return -1;
    }
    server_has_stopped(vrf_name);
    return 0;
}

/// Reads the first line of the probe file, without its newline. Returns 0, or -1 after logging the failure.
int read_probe_line(const char* vrf_name, char* line, int size) {
    FILE* probe = std::fopen(paths::service_probe_file, "r");
    if (probe == nullptr) {
        const int error = errno;
        debug_print("Error:=%s(0x%x), Vrf-name:=%s, Failed to open service file", platform_status_text(error), error,
                    vrf_name);
        log_status(ERR_ERRNO, error, "Failed to open service file");
        trace_error(vrf_trace_probe, {vrf_name, error});
        return -1;
    }
    const bool read = std::fgets(line, size, probe) != nullptr;
    const int error = errno;
    std::fclose(probe);
    if (!read) {
        debug_print("Error:=%s(0x%x), Vrf-name:=%s, Failed to read service file", platform_status_text(error), error,
                    vrf_name);
        log_status(ERR_ERRNO, error, "Failed to read service file");
        trace_error(vrf_trace_probe, {vrf_name, error});
        return -1;
    }
    line[std::strcspn(line, "\n")] = '\0';
    return 0;
}

/// Asks systemd whether the VRF's server is running. Returns 0 and the answer, or -1 if that cannot be determined.
int probe_server(const char* vrf_name, bool* active) {
    if (const std::optional<postponed_unit> unit = query_postponed_unit(vrf_name)) {
        debug_print("vrf-name:=%s, content %s", vrf_name, unit->active ? "active" : "inactive");
        *active = unit->active;
        return 0;
    }
    char command[systemctl_command_size];
    format_text(command, sizeof command, paths::service_probe_command, vrf_name);
    if (run_shell_command(command, systemctl_limit) == -1) {
        const int error = errno;
        debug_print("Error:=%s(0x%x), Vrf-name:=%s, Failed to check process running status",
                    platform_status_text(error), error, vrf_name);
        log_status(ERR_ERRNO, error, "Failed to check process running status");
        trace_error(vrf_trace_probe, {vrf_name, error});
        return -1;
    }
    char line[line_size];
    if (read_probe_line(vrf_name, line, sizeof line) != 0) {
        return -1;
    }
    debug_print("vrf-name:=%s, content %s", vrf_name, line);
    *active = begins_with(line, "active");
    return 0;
}

/// Reports to the platform that a VRF's file is not as configured.
void report_uncopied_file(const char* path) {
    char subject[PATH_MAX + sizeof "file "];
    format_text(subject, sizeof subject, "file %s", path);
    enforcement_failed(subject, "cannot be made from the default file");
}

int copy_default_file(const char* vrf_name, const char* path, uint32_t* change) {
    if (note_file_change(path) != 0 || copy_file(paths::server_file, path) != 0) {
        const int error = errno;
        debug_print("Error:=%s(0x%x), Vrf-name:=%s, Failed to copy config file", platform_status_text(error), error,
                    vrf_name);
        log_status(ERR_ERRNO, error, "Failed to copy config file");
        trace_error(vrf_trace_copy, {vrf_name, error});
        report_uncopied_file(path);
        return -1;
    }
    *change = 1;
    return 0;
}

/// A running server keeps the file it was started with. The file of a stopped server may be stale and is recreated.
int renew_stale_file(const char* vrf_name, const char* path, uint32_t* change) {
    bool active = false;
    if (probe_server(vrf_name, &active) != 0) {
        return -1;
    }
    if (active) {
        return 0;
    }
    if (std::remove(path) != 0) {
        trace_error(vrf_trace_copy, {vrf_name, errno});
    }
    return copy_default_file(vrf_name, path, change);
}

}  // namespace

int ssh_process_restart(uint32_t start, const char* vrf_name) {
    if (vrf_name == nullptr) {
        debug_print("Vrf-name:=NULL, Restart of process failed");
        trace_error(vrf_trace_restart_name_missing);
        return -1;
    }
    char unit[PATH_MAX];
    service_unit_path(vrf_name, unit, sizeof unit);
    if (file_exists(unit) != 1) {
        return report_missing_unit(vrf_name);
    }
    if (start != 0 && servers_held_down) {
        return report_held_down(vrf_name);
    }
    return start != 0 ? start_server(vrf_name) : stop_server(vrf_name);
}

void hold_servers_down(bool held) {
    servers_held_down = held;
}

bool servers_are_held_down() {
    return servers_held_down;
}

int ssh_process_stop(const char* vrf_name) {
    return stop_server(vrf_name);
}

int restart_server_of(vrf_node* node) {
    if (servers_held_down) {
        return report_held_down(node->name);
    }
    const int result = ssh_process_restart(1, node->name);
    char unit[PATH_MAX];
    service_unit_path(node->name, unit, sizeof unit);
    // Without a unit the restart has nothing to do yet, and nothing has been started.
    if (result == 0 && file_exists(unit) == 1) {
        (node->restart_put_off != 0 ? node->start_put_off : node->server_started) = 1;
    }
    return result;
}

int prepare_vrf_file(const char* vrf_name, int add_line, const char* keyword, const char* value, uint32_t* change,
                     int new_node) {
    char path[PATH_MAX];
    vrf_config_file_path(vrf_name, path, sizeof path);
    if (file_exists(path) == 1) {
        debug_print("file exists");
        if (new_node == 1 && renew_stale_file(vrf_name, path, change) != 0) {
            return -1;
        }
    } else {
        debug_print("vrf config does not exist, creating");
        if (copy_default_file(vrf_name, path, change) != 0) {
            return -1;
        }
    }
    if (add_line == 1) {
        char line[line_size];
        format_text(line, sizeof line, "%s %s", keyword, value);
        // The editor has logged the failure. It is better to start the server without this line than not at all.
        if (update_string_in_file(path, keyword, 1, line, change) != 0) {
            report_file_not_in_force(path);
        }
    }
    return 0;
}
