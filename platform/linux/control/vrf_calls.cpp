/// Lifting blocks of a VRF by hand.
#include <algorithm>

#include "common/text.h"
#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"
#include "linux/vrf/mpp_internal.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"

namespace {

/// Stores whether the VRF has a number or a namespace.
platform_status look_up(const std::string& name, bool& is_known) {
    std::vector<vrf_table_entry> entries;
    const platform_status status = vrf_table_list(entries);
    if (status != PLATFORM_OK) {
        return status;
    }
    const std::vector<std::string> namespaces = namespace_list();
    is_known =
        std::any_of(entries.begin(), entries.end(), [&](const vrf_table_entry& entry) { return entry.name == name; }) ||
        std::find(namespaces.begin(), namespaces.end(), namespace_name_prefix + name) != namespaces.end();
    return PLATFORM_OK;
}

control_json unblock(const std::string& name) {
    const std::string shown = text_escape_quoted(name, 80);
    bool is_known = false;
    platform_status status = look_up(name, is_known);
    if (status == PLATFORM_OK && !is_known) {
        return control_answer(control_result::refused, text_format("unknown VRF \"%s\"", shown.c_str()));
    }
    std::vector<std::string> lifted;
    if (status == PLATFORM_OK) {
        status = mpp_lift_blocks(name, lifted);
    }
    if (status != PLATFORM_OK) {
        return control_answer(control_result::failed, text_format("VRF %s could not be unblocked: %s (0x%x)",
                                                                  shown.c_str(), platform_status_text(status), status));
    }
    control_json answer = control_data_answer(lifted);
    answer["vrf"] = name;
    return answer;
}

}  // namespace

control_json control_call_vrf_unblock(const control_json& request, const control_peer& peer) {
    const std::string* name = control_text_member(request, "name");
    if (name == nullptr) {
        return control_wrong_member("name", "a string");
    }
    control_json answer = unblock(*name);
    std::vector<std::string> entries = {*name};
    for (const control_json& service : answer.value("data", control_json::array())) {
        entries.push_back("opened " + service.get<std::string>());
    }
    control_audit(peer, "vrf unblock", control_result_of_name(answer["result"].get_ref<const std::string&>()), entries);
    return answer;
}
