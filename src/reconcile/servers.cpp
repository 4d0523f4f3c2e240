#include "reconcile/servers.h"

#include <sys/stat.h>

#include <string>
#include <vector>

#include "config_files/config_writer.h"
#include "config_files/files.h"
#include "config_files/parameter_table.h"
#include "config_files/restart_record.h"
#include "config_files/vrf_node.h"
#include "core/log.h"
#include "core/paths.h"
#include "platform/server_process.h"
#include "reconcile/configuration_files.h"
#include "vrf/server_changes.h"
#include "vrf/server_lifecycle.h"
#include "vrf/service_unit.h"
#include "vrf/unit_states.h"
#include "vrf/vrf_appliers.h"
#include "vrf/vrf_namespace.h"

namespace {

std::string server_subject(const std::string& vrf_name) {
    return "server " + vrf_name;
}

/// Whether the process runs in another network namespace than the VRF's current one. False if the process has ended.
bool runs_elsewhere(const vrf_node& node, int32_t process) {
    struct stat wanted = {};
    struct stat present = {};
    const std::string own = paths::namespace_prefix + std::string(node.name);
    const std::string used = "/proc/" + std::to_string(process) + "/ns/net";
    return process > 0 && stat(own.c_str(), &wanted) == 0 && stat(used.c_str(), &present) == 0 &&
           (wanted.st_ino != present.st_ino || wanted.st_dev != present.st_dev);
}

/// Why what the process was started with is not what is configured; empty if it is.
std::string difference_of_process(const vrf_node& node, int32_t process) {
    server_process_report report;
    server_process_examine(node.name, process, &report);
    if (report.difference[0] != '\0' || report.file[0] == '\0') {
        return report.difference;
    }
    const std::string difference = server_file_difference(node, report.file);
    return difference.empty() ? "" : "was started with a file that " + difference;
}

/// Why the server must be restarted; empty if it need not be.
std::string reason_to_restart(const vrf_node& node, const unit_state* unit) {
    if (unit == nullptr || !is_running(*unit)) {
        return "is not running" + (unit != nullptr ? " (" + unit->active_state + ")" : "");
    }
    if (node.start_failed != 0) {
        return "runs, but its VRF was left blocked when it could not be started";
    }
    if (runs_elsewhere(node, unit->main_process)) {
        return "runs in another network namespace than vrf-" + std::string(node.name);
    }
    if (restart_is_due(node.name, unit->started)) {
        return "was started before its file was last changed";
    }
    return difference_of_process(node, unit->main_process);
}

/// Rewrites the unit of a VRF if it differs. Returns false if that fails.
bool compare_unit(comparison& run, const vrf_node& node, const unit_state* unit) {
    const std::string namespace_name = vrf_namespace_prefix + std::string(node.name);
    const bool is_current = sshd_service_config_file_is_current(namespace_name.c_str());
    const bool is_read = unit == nullptr || !unit->needs_reload || unit_reload_is_due();
    if (is_current && is_read) {
        return true;
    }
    const std::string subject = "unit " + std::string(node.name);
    if (!found(run, subject, is_current ? "systemd has not read its present file" : "is missing or differs")) {
        return true;
    }
    if (create_sshd_service_config_file(namespace_name.c_str()) != 0) {
        not_removed(run, subject, "cannot be written");
        return false;
    }
    return true;
}

/// Restarts the server of a VRF if necessary. Returns whether it tried.
bool compare_server(comparison& run, vrf_node& node, const unit_state* unit) {
    if (!compare_unit(run, node, unit)) {
        return false;
    }
    const std::string reason = reason_to_restart(node, unit);
    if (reason.empty() || !found(run, server_subject(node.name), reason)) {
        return false;
    }
    const std::string message = "The server of VRF " + std::string(node.name) + " " + reason + ": restarting it";
    log_text(WARNING_GENERAL, message.c_str());
    restart_server_of(&node);
    return true;
}

bool is_wanted(const unit_state& unit) {
    const vrf_node* node = find_vrf_node(unit.vrf_name.c_str());
    return node != nullptr && node->reference_count > 0 && vrf_namespace_exists(node->name);
}

void stop_unwanted(comparison& run, const unit_state& unit) {
    const std::string subject = server_subject(unit.vrf_name);
    const bool configured = find_vrf_node(unit.vrf_name.c_str()) != nullptr;
    if (!found(run, subject, configured ? "runs without its network namespace" : "runs, but nothing requests it")) {
        return;
    }
    const std::string message = "The server of VRF " + unit.vrf_name + " is not configured: stopping it";
    log_text(WARNING_GENERAL, message.c_str());
    if (ssh_process_stop(unit.vrf_name.c_str()) != 0) {
        not_removed(run, subject, "cannot be stopped");
    } else if (!configured) {
        delete_vrf_config_file(unit.vrf_name.c_str());
    }
}

/// Checks the result of the restarts, because systemctl's exit status alone does not show it.
int examine_restarted(comparison& run, const std::vector<const vrf_node*>& restarted) {
    std::vector<unit_state> units;
    if (restarted.empty()) {
        return 0;
    }
    if (read_unit_states(&units) != 0) {
        return -1;
    }
    for (const vrf_node* node : restarted) {
        const unit_state* unit = find_unit_state(units, node->name);
        if (unit == nullptr || !is_running(*unit)) {
            not_removed(run, server_subject(node->name), reason_to_restart(*node, unit));
        }
    }
    return 0;
}

/// Lets systemd read the units if it could not when they were written.
void compare_systemd(comparison& run) {
    if (unit_reload_is_due() && found(run, "units", "systemd has not read them since they were changed") &&
        reload_units() != 0) {
        not_removed(run, "units", "systemctl daemon-reload failed");
    }
}

}  // namespace

void compare_deletions(comparison& run) {
    std::vector<std::string> vrf_names;
    for (const vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        if (node->deletions_due != 0) {
            vrf_names.emplace_back(node->name);
        }
    }
    for (const std::string& vrf_name : vrf_names) {
        if (!found(run, server_subject(vrf_name), "still provides a service that is no longer configured")) {
            continue;
        }
        carry_out_due_deletions(find_vrf_node(vrf_name.c_str()));
        const vrf_node* left = find_vrf_node(vrf_name.c_str());
        if (left != nullptr && left->deletions_due != 0) {
            not_removed(run, server_subject(vrf_name), "its file cannot be edited");
        }
    }
}

int compare_servers(comparison& run) {
    compare_systemd(run);
    std::vector<unit_state> units;
    if (read_unit_states(&units) != 0) {
        return -1;
    }
    std::vector<const vrf_node*> restarted;
    // After a reload notice the servers stay down on purpose.
    for (vrf_node* node = server_config.nodes; node != nullptr && !servers_are_held_down(); node = node->next) {
        if (node->reference_count > 0 && vrf_namespace_exists(node->name) &&
            compare_server(run, *node, find_unit_state(units, node->name))) {
            restarted.push_back(node);
        }
    }
    for (const unit_state& unit : units) {
        if (!is_stopped(unit) && !is_wanted(unit)) {
            stop_unwanted(run, unit);
        }
    }
    return examine_restarted(run, restarted);
}
