/// The state of the agent and its VRFs as it really is, compared with the configuration.
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "common/text.h"
#include "linux/control/calls.h"
#include "linux/control/calls_internal.h"
#include "linux/datastore/confirmation.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/process/process_manager_internal.h"
#include "linux/status/machine_status.h"
#include "linux/status/problems.h"

namespace {

/// The stored items that have no effect on this machine, each with the reason.
control_json uncarried_items_json() {
    control_json list = control_json::array();
    datastore_visit("/cfg/", [&list](const std::string& path, const datastore_value& value) {
        const schema_row* row = schema_find(path, nullptr);
        const std::string reason = row != nullptr ? schema_not_carried_out(*row, value) : "";
        if (!reason.empty()) {
            list.push_back({{"path", path}, {"reason", reason}});
        }
        return true;
    });
    return list;
}

control_json services_json(const vrf_status& vrf) {
    control_json list = control_json::array();
    for (const uint32_t service : vrf.services) {
        list.push_back(service_word(service));
    }
    return list;
}

control_json unit_json(const vrf_status& vrf) {
    if (!vrf.unit.has_value()) {
        return {};
    }
    return {{"name", server_unit_name(vrf.name)},   {"load", vrf.unit->load},
            {"active", vrf.unit->active},           {"sub", vrf.unit->sub},
            {"result", vrf.unit->result},           {"process", vrf.unit->main_process},
            {"other_namespace", vrf.runs_elsewhere}};
}

control_json file_json(const std::optional<launch_record>& launch) {
    constexpr const char* words[] = {"none", "current", "last_good"};
    if (!launch.has_value()) {
        return {};
    }
    return {{"path", launch->server_file},
            {"in_use", words[static_cast<size_t>(launch->in_use)]},
            {"reason", launch->reason},
            {"local", control_local_state(*launch)},
            {"not_in_force", launch->not_in_force}};
}

control_json lists_json(const vrf_status& vrf) {
    control_json list = control_json::array();
    for (const list_status& each : vrf.lists) {
        list.push_back({{"service", service_word(each.service)},
                        {"family", family_word(each.family)},
                        {"name", each.name},
                        {"state", list_state_word(each.state)}});
    }
    return list;
}

control_json failures_json(const std::vector<enforcement_entry>& failures) {
    control_json list = control_json::array();
    for (const enforcement_entry& entry : failures) {
        list.push_back({{"subject", entry.subject}, {"reason", entry.reason}, {"since", status_time(entry.since)}});
    }
    return list;
}

control_json vrf_json(const vrf_status& vrf) {
    const time_t since = vrf.protection.closed_since;
    return {{"name", vrf.name},
            {"id", vrf.id ? control_json(*vrf.id) : control_json()},
            {"services", services_json(vrf)},
            {"namespace", vrf.has_namespace},
            {"unit", unit_json(vrf)},
            {"ports", vrf.ports},
            {"file", file_json(vrf.launch)},
            {"access_lists", lists_json(vrf)},
            {"blocked", vrf.protection.blocked},
            {"closed", vrf.protection.closed},
            {"blocked_since", since != 0 ? control_json(status_time(since)) : control_json()},
            {"failures", failures_json(vrf.failures)}};
}

control_json problems_json(const std::vector<enforcement_difference>& problems) {
    control_json list = control_json::array();
    for (const enforcement_difference& problem : problems) {
        list.push_back({{"subject", problem.subject}, {"text", problem.text}});
    }
    return list;
}

/// Adds the findings of the agent's own comparison that the status does not show.
void add_comparison(std::vector<enforcement_difference>& problems) {
    const enforcement_comparison comparison =
        enforcement_can_compare() ? enforcement_reconcile(false) : enforcement_comparison{};
    if (comparison.remaining < 0) {
        problems.push_back({"comparison", "the configuration cannot be compared with the machine"});
    }
    for (const enforcement_difference& difference : comparison.differences) {
        const bool is_known = std::any_of(problems.begin(), problems.end(), [&](const enforcement_difference& problem) {
            return problem.subject == difference.subject;
        });
        if (!is_known) {
            problems.push_back(difference);
        }
    }
}

control_json process_json(const process_status& process) {
    const time_t now = time(nullptr);
    const auto started = static_cast<time_t>(process.started);
    return {{"version", control_version()},
            {"pid", getpid()},
            {"role", process.role == PROCESS_ROLE_PRIMARY ? "primary" : "standby"},
            {"ready", process.ready},
            {"started", status_time(started)},
            {"uptime_seconds", now > started ? now - started : 0},
            {"respawn_count", process.respawn_count}};
}

/// Returns the commit that awaits its confirmation, or null.
control_json trial_json() {
    const std::optional<datastore_trial> trial = datastore_commit_on_trial();
    if (!trial.has_value()) {
        return {};
    }
    return {{"commit", trial->number},
            {"user", trial->user},
            {"note", trial->note},
            {"until", status_time(static_cast<time_t>(trial->until))}};
}

control_json status_of_standby(control_json data) {
    data["confirmation_awaited"] = nullptr;
    for (const char* list : {"not_carried_out", "vrfs", "not_in_force", "problems"}) {
        data[list] = control_json::array();
    }
    return control_data_answer(std::move(data));
}

control_json failed_check(control_json data, size_t count) {
    control_json answer =
        control_answer(control_result::failed, count == 1 ? "1 thing is not as configured"
                                                          : std::to_string(count) + " things are not as configured");
    answer["data"] = std::move(data);
    return answer;
}

control_json status_of_primary(control_json data, bool check) {
    machine_status machine;
    const platform_status status = machine_status_collect(machine);
    if (status != PLATFORM_OK) {
        return control_answer(control_result::failed, text_format("cannot read the configuration: %s (0x%x)",
                                                                  platform_status_text(status), status));
    }
    std::vector<enforcement_difference> problems = machine_problems(machine);
    if (check) {
        add_comparison(problems);
    }
    data["confirmation_awaited"] = trial_json();
    data["not_carried_out"] = uncarried_items_json();
    data["vrfs"] = control_json::array();
    for (const vrf_status& vrf : machine.vrfs) {
        data["vrfs"].push_back(vrf_json(vrf));
    }
    data["not_in_force"] = failures_json(machine.failures);
    data["problems"] = problems_json(problems);
    return check && !problems.empty() ? failed_check(std::move(data), problems.size())
                                      : control_data_answer(std::move(data));
}

}  // namespace

control_json control_call_status(const control_json& request, const control_peer& /*peer*/) {
    const auto check = request.find("check");
    if (check != request.end() && !check->is_boolean()) {
        return control_wrong_member("check", "true or false");
    }
    const process_status process = process_manager_status();
    control_json data = process_json(process);
    data["in_progress"] = control_progress();
    return process.role == PROCESS_ROLE_PRIMARY
               ? status_of_primary(std::move(data), check != request.end() && check->get<bool>())
               : status_of_standby(std::move(data));
}
