#include <time.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "common/text.h"
#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"
#include "linux/reporting/debug_internal.h"
#include "linux/reporting/trace_internal.h"
#include "linux/status/machine_status.h"
#include "linux/vrf/mpp_internal.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"

namespace {

/// What the platform's services report about one VRF.
struct vrf_state {
    std::optional<uint32_t> id;  ///< nothing if the VRF has no number yet
    bool has_namespace = false;
    std::set<uint32_t> configured;  ///< services
    mpp_vrf_status protection = {};
};

/// Returns the configured services of a VRF if it has no namespace, otherwise an empty array.
control_json waiting_services(const vrf_state& vrf) {
    control_json waiting = control_json::array();
    for (const uint32_t service : vrf.configured) {
        if (!vrf.has_namespace) {
            waiting.push_back(service_word(service));
        }
    }
    return waiting;
}

/// Returns whether a service is attached. The state of the protection is not sufficient for that, because after a restart
/// the agent does not touch servers that already run as configured.
bool is_attached(const vrf_state& vrf, uint32_t service) {
    return vrf.has_namespace && vrf.configured.contains(service);
}

platform_status collect_vrfs(std::map<std::string, vrf_state>& vrfs) {
    std::vector<vrf_table_entry> entries;
    configured_services configured;
    platform_status status = vrf_table_list(entries);
    if (status == PLATFORM_OK) {
        status = configured_services_read(configured);
    }
    if (status != PLATFORM_OK) {
        return status;
    }
    for (auto& [name, services] : configured) {
        vrfs[name].configured = std::move(services);
    }
    for (const vrf_table_entry& entry : entries) {
        vrfs[entry.name].id = entry.id;
    }
    for (const std::string& name : namespace_list()) {
        vrfs[name.substr(std::string_view(namespace_name_prefix).size())].has_namespace = true;
    }
    for (const mpp_vrf_status& protection : mpp_status()) {
        vrfs[protection.vrf_name].protection = protection;
    }
    return PLATFORM_OK;
}

control_json vrfs_json(const std::map<std::string, vrf_state>& vrfs) {
    control_json list = control_json::array();
    for (const auto& [name, vrf] : vrfs) {
        list.push_back({{"name", name},
                        {"id", vrf.id ? control_json(*vrf.id) : control_json()},
                        {"namespace", vrf.has_namespace},
                        {"ssh", is_attached(vrf, MPP_SERVICE_SSH)},
                        {"netconf", is_attached(vrf, MPP_SERVICE_NETCONF)},
                        {"waiting", waiting_services(vrf)},
                        {"blocked", vrf.protection.blocked},
                        {"closed", vrf.protection.closed}});
    }
    return list;
}

std::string utc_time(uint64_t seconds, const char* format) {
    const auto moment = static_cast<time_t>(seconds);
    tm parts = {};
    gmtime_r(&moment, &parts);
    char text[64];
    return {text, strftime(text, sizeof text, format, &parts)};
}

control_json flags_json() {
    control_json list = control_json::array();
    for (const debug_flag_state& flag : debug_flag_list()) {
        list.push_back({{"name", flag.name}, {"on", flag.on}, {"path", flag.path}});
    }
    return list;
}

std::string known_flags() {
    std::string names;
    for (const debug_flag_state& flag : debug_flag_list()) {
        names += (names.empty() ? "" : ", ") + flag.name;
    }
    return names;
}

bool is_flag_on(const std::string& name) {
    for (const debug_flag_state& flag : debug_flag_list()) {
        if (flag.name == name) {
            return flag.on;
        }
    }
    return false;
}

control_json switch_flag(const std::string& flag, bool on, const control_peer& peer) {
    const bool changed = is_flag_on(flag) != on;
    const platform_status status = debug_flag_set(flag, on);
    const std::string shown = text_escape_quoted(flag, 80);
    control_json answer = control_answer(control_result::done);
    if (status == ENOENT) {
        answer = control_answer(control_result::refused, text_format("unknown debug flag \"%s\"; the flags are %s",
                                                                     shown.c_str(), known_flags().c_str()));
    } else if (status != PLATFORM_OK) {
        answer = control_answer(control_result::failed, text_format("debug flag \"%s\": %s (0x%x)", shown.c_str(),
                                                                    platform_status_text(status), status));
    } else {
        answer["changed"] = changed;
    }
    control_audit(peer, "debug", control_result_of_name(answer["result"].get_ref<const std::string&>()),
                  {flag + (on ? " on" : " off")});
    return answer;
}

/// The label of an argument, or its position, counted from 1, if it has none.
std::string trace_label(const trace_record& record, size_t place) {
    const char* label = record.point != nullptr ? record.point->labels[place] : nullptr;
    return label != nullptr ? label : std::to_string(place + 1);
}

control_json trace_arguments_json(const trace_record& record) {
    control_json arguments = control_json::object();
    for (size_t i = 0; i < record.arguments.size(); ++i) {
        const traced_argument& argument = record.arguments[i];
        arguments[trace_label(record, i)] =
            argument.is_text ? control_json(argument.text) : control_json(argument.number);
    }
    return arguments;
}

control_json trace_entry_json(const trace_record& record) {
    constexpr uint64_t second = 1'000'000;
    const control_json arguments = trace_arguments_json(record);
    control_json entry = {{"time", utc_time(record.microseconds / second, "%Y-%m-%dT%H:%M:%S") +
                                       text_format(".%06uZ", static_cast<unsigned>(record.microseconds % second))},
                          {"point", record.code},
                          {"name", record.point != nullptr ? control_json(record.point->name) : control_json()},
                          {"arguments", arguments}};
    const auto status = arguments.find("status");
    if (status != arguments.end() && status->is_number() && *status != PLATFORM_OK) {
        entry["error"] = platform_status_text(status->get<platform_status>());
    }
    return entry;
}

}  // namespace

control_json control_call_vrf_list(const control_json& /*request*/, const control_peer& /*peer*/) {
    std::map<std::string, vrf_state> vrfs;
    const platform_status status = collect_vrfs(vrfs);
    if (status != PLATFORM_OK) {
        return control_answer(control_result::failed,
                              text_format("cannot read the VRFs: %s (0x%x)", platform_status_text(status), status));
    }
    return control_data_answer(vrfs_json(vrfs));
}

control_json control_call_debug(const control_json& request, const control_peer& peer) {
    const auto flag = request.find("flag");
    if (flag == request.end()) {
        return control_data_answer(flags_json());
    }
    if (!flag->is_string()) {
        return control_wrong_member("flag", "a string");
    }
    const auto on = request.find("on");
    if (on == request.end() || !on->is_boolean()) {
        return control_wrong_member("on", "true or false");
    }
    return switch_flag(flag->get_ref<const std::string&>(), on->get<bool>(), peer);
}

control_json control_call_trace(const control_json& request, const control_peer& /*peer*/) {
    const std::string* name = control_text_member(request, "buffer");
    if (name == nullptr) {
        return control_wrong_member("buffer", "a string");
    }
    trace_buffer_contents contents;
    if (trace_buffer_read(*name, contents) != PLATFORM_OK) {
        return control_answer(
            control_result::refused,
            text_format("unknown trace buffer \"%s\"; expected error or event", text_escape_quoted(*name, 80).c_str()));
    }
    control_json list = control_json::array();
    for (const trace_record& record : contents.records) {
        list.push_back(trace_entry_json(record));
    }
    control_json answer = control_data_answer(std::move(list));
    answer["written"] = contents.written;
    return answer;
}
