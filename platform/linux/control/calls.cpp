#include "linux/control/calls.h"

#include "common/text.h"
#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"

namespace {

struct call_row {
    const char* name;
    control_json (*answer)(const control_json& request, const control_peer& peer);
};

constexpr call_row calls[] = {
    // Changes.
    {"set", control_call_set},
    {"delete", control_call_delete},
    {"load", control_call_load},
    // Reads.
    {"get", control_call_get},
    {"list", control_call_list},
    {"dump", control_call_dump},
    {"show", control_call_show},
    {"watch", control_call_watch},
    // The platform's state.
    {"vrf_list", control_call_vrf_list},
    {"status", control_call_status},
    {"debug", control_call_debug},
    {"trace", control_call_trace},
    // Comparing the configuration with the machine.
    {"verify", control_call_verify},
    {"repair", control_call_repair},
    // Access lists.
    {"acl_set", control_call_acl_set},
    {"acl_delete", control_call_acl_delete},
    {"acl_list", control_call_acl_list},
    {"acl_show", control_call_acl_show},
    // Users' public keys.
    {"key_list", control_call_key_list},
    {"key_import", control_call_key_import},
    {"key_delete", control_call_key_delete},
    // Reloads of the router.
    {"reload", control_call_reload},
    {"reload_state", control_call_reload_state},
};

/// Commits tell for themselves what they have not put in force. Other changes (of access lists and keys) are told of here.
control_json answer_with_failures(const call_row& row, const control_json& request, const control_peer& peer) {
    const enforcement_collector collector;
    control_json answer = row.answer(request, peer);
    const std::vector<enforcement_entry> entries = collector.entries();
    if (entries.empty() || answer.contains("next") || answer["result"] != control_result_name(control_result::done)) {
        return answer;
    }
    control_tell_not_in_force(answer, entries);
    std::vector<std::string> lines;
    for (const enforcement_entry& entry : entries) {
        lines.push_back(control_not_in_force_text(entry));
    }
    control_audit(peer, row.name, control_result::not_in_force, lines);
    return answer;
}

}  // namespace

const std::string* control_text_member(const control_json& request, const char* name) {
    const auto member = request.find(name);
    return member != request.end() && member->is_string() ? member->get_ptr<const std::string*>() : nullptr;
}

control_json control_wrong_member(const char* name, const char* wanted) {
    return control_answer(control_result::usage,
                          std::string("member \"") + name + "\" of the request must be " + wanted);
}

control_json control_data_answer(control_json data) {
    control_json answer = control_answer(control_result::done);
    answer["data"] = std::move(data);
    return answer;
}

control_json control_call(const control_json& request, const control_peer& peer) {
    const std::string* name = control_text_member(request, "call");
    for (const call_row& row : calls) {
        if (name != nullptr && *name == row.name) {
            return answer_with_failures(row, request, peer);
        }
    }
    return control_answer(control_result::usage,
                          "unknown call \"" + text_escape(name == nullptr ? "" : *name, 40) + '"');
}
