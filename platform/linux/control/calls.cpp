#include "linux/control/calls.h"

#include "common/text.h"
#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/process/process_manager_internal.h"

namespace {

/// How a call behaves while this node is a standby.
enum class on_standby : uint8_t {
    serve,    ///< as usual
    read,     ///< as usual, from the database, which is opened for the call
    nothing,  ///< there is no data: its subject does not exist on a standby
    refuse    ///< refused, because it is a change
};

/// Whether a request can be answered while a handler of the agent is at work.
using meanwhile_test = bool (*)(const control_json& request);

bool always(const control_json& /*request*/) {
    return true;
}

/// With the member, the call runs the agent's comparison or sets one of its flags.
template <const char* member>
bool without(const control_json& request) {
    return !request.contains(member);
}

constexpr char check_member[] = "check";
constexpr char flag_member[] = "flag";

/// Who may make a call.
enum class open_to : uint8_t {
    readers,
    administrators,
    readers_without_flag  ///< the call changes something only if it names a flag
};

struct call_row {
    const char* name;
    control_json (*answer)(const control_json& request, const control_peer& peer);
    on_standby standby;
    meanwhile_test meanwhile;  ///< null: never, because the call changes something or needs the agent's handlers
    open_to users;
};

constexpr call_row calls[] = {
    // Changes.
    {"set", control_call_set, on_standby::refuse, nullptr, open_to::administrators},
    {"delete", control_call_delete, on_standby::refuse, nullptr, open_to::administrators},
    {"load", control_call_load, on_standby::refuse, nullptr, open_to::administrators},
    {"rollback", control_call_rollback, on_standby::refuse, nullptr, open_to::administrators},
    {"confirm", control_call_confirm, on_standby::refuse, nullptr, open_to::administrators},
    // Reads.
    {"history", control_call_history, on_standby::read, always, open_to::readers},
    {"diff", control_call_diff, on_standby::read, always, open_to::readers},
    {"get", control_call_get, on_standby::read, always, open_to::readers},
    {"list", control_call_list, on_standby::read, always, open_to::readers},
    {"dump", control_call_dump, on_standby::read, always, open_to::readers},
    {"show", control_call_show, on_standby::nothing, nullptr, open_to::readers},
    {"watch", control_call_watch, on_standby::nothing, nullptr, open_to::readers},
    {"help", control_call_help, on_standby::read, always, open_to::readers},
    {"complete", control_call_complete, on_standby::read, always, open_to::readers},
    // The platform's state.
    {"vrf_list", control_call_vrf_list, on_standby::nothing, always, open_to::readers},
    {"status", control_call_status, on_standby::serve, without<check_member>, open_to::readers},
    {"debug", control_call_debug, on_standby::nothing, without<flag_member>, open_to::readers_without_flag},
    {"trace", control_call_trace, on_standby::serve, always, open_to::readers},
    {"vrf_unblock", control_call_vrf_unblock, on_standby::refuse, nullptr, open_to::administrators},
    // Comparing the configuration with the machine.
    {"verify", control_call_verify, on_standby::nothing, nullptr, open_to::readers},
    {"repair", control_call_repair, on_standby::refuse, nullptr, open_to::administrators},
    // Access lists.
    {"acl_set", control_call_acl_set, on_standby::refuse, nullptr, open_to::administrators},
    {"acl_delete", control_call_acl_delete, on_standby::refuse, nullptr, open_to::administrators},
    {"acl_list", control_call_acl_list, on_standby::read, always, open_to::readers},
    {"acl_show", control_call_acl_show, on_standby::read, always, open_to::readers},
    // Users' public keys.
    {"key_list", control_call_key_list, on_standby::serve, always, open_to::readers},
    {"key_export", control_call_key_export, on_standby::serve, always, open_to::readers},
    {"key_import", control_call_key_import, on_standby::refuse, nullptr, open_to::administrators},
    {"key_delete", control_call_key_delete, on_standby::refuse, nullptr, open_to::administrators},
    // Local directives.
    {"local_show", control_call_local_show, on_standby::nothing, nullptr, open_to::readers},
    {"local_read", control_call_local_read, on_standby::serve, always, open_to::readers},
    {"local_check", control_call_local_check, on_standby::serve, nullptr, open_to::readers},
    {"local_set", control_call_local_set, on_standby::refuse, nullptr, open_to::administrators},
    {"local_apply", control_call_local_apply, on_standby::refuse, nullptr, open_to::administrators},
    // The servers' sessions. Ending one changes nothing that a handler of the agent works with.
    {"sessions", control_call_sessions, on_standby::nothing, always, open_to::readers},
    {"session_end", control_call_session_end, on_standby::refuse, always, open_to::administrators},
    {"failures", control_call_failures, on_standby::serve, always, open_to::readers},
    // Reloads of the router.
    {"reload", control_call_reload, on_standby::refuse, nullptr, open_to::administrators},
    {"reload_state", control_call_reload_state, on_standby::refuse, nullptr, open_to::readers},
};

const call_row* find_call(const control_json& request) {
    const std::string* name = control_text_member(request, "call");
    for (const call_row& row : calls) {
        if (name != nullptr && *name == row.name) {
            return &row;
        }
    }
    return nullptr;
}

/// Answers to commits already name what is not in force. This adds it to other changes.
control_json answer_with_failures(const call_row& row, const control_json& request, const control_peer& peer) {
    const enforcement_collector collector;
    control_json answer = row.answer(request, peer);
    const std::vector<enforcement_entry> entries = collector.entries();
    if (entries.empty() || answer.contains("next") || answer["result"] != control_result_name(control_result::done)) {
        return answer;
    }
    control_tell_not_in_force(answer, entries);
    std::vector<std::string> lines;
    lines.reserve(entries.size());
    for (const enforcement_entry& entry : entries) {
        lines.push_back(control_not_in_force_text(entry));
    }
    control_audit(peer, row.name, control_result::not_in_force, lines);
    return answer;
}

/// The primary node may replace the database's file at any time, so a standby opens it only while reading.
control_json read_on_standby(const call_row& row, const control_json& request, const control_peer& peer) {
    const platform_status status = datastore_open();
    if (status != PLATFORM_OK) {
        return control_answer(control_result::failed,
                              std::string("cannot open the configuration: ") + platform_status_text(status));
    }
    control_json answer = row.answer(request, peer);
    datastore_release();
    return answer;
}

control_json answer_on_standby(const call_row& row, const control_json& request, const control_peer& peer) {
    switch (row.standby) {
        case on_standby::serve:
            break;
        case on_standby::read:
            return read_on_standby(row, request, peer);
        case on_standby::nothing:
            return control_answer(control_result::no_data,
                                  "this node is a standby: there is nothing to show until it becomes the primary node");
        case on_standby::refuse:
            return control_answer(control_result::refused,
                                  "this node is a standby and takes no changes until it becomes the primary node");
    }
    return row.answer(request, peer);
}

bool is_change(const call_row& row, const control_json& request) {
    return row.users == open_to::administrators ||
           (row.users == open_to::readers_without_flag && request.contains("flag"));
}

control_json refuse_change(const call_row& row, const control_peer& peer) {
    control_audit(peer, row.name, control_result::refused, {"not an administrator"});
    return control_answer(control_result::refused,
                          "permission denied: changes are up to root and members of the group sshcfg-admin");
}

control_json answer_call(const call_row& row, const control_json& request, const control_peer& peer) {
    if (is_change(row, request) && !control_peer_may_change(peer)) {
        return refuse_change(row, peer);
    }
    if (process_manager_status().role != PROCESS_ROLE_PRIMARY) {
        return answer_on_standby(row, request, peer);
    }
    return answer_with_failures(row, request, peer);
}

}  // namespace

datastore_authority control_peer_authority(const control_peer& peer) {
    return peer.uid == 0 ? datastore_authority::root : datastore_authority::administrator;
}

const std::string* control_text_member(const control_json& request, const char* name) {
    const auto member = request.find(name);
    return member != request.end() && member->is_string() ? member->get_ptr<const std::string*>() : nullptr;
}

control_json control_flag_member(const control_json& request, const char* name, bool& flag) {
    const auto member = request.find(name);
    if (member == request.end()) {
        return {};
    }
    if (!member->is_boolean()) {
        return control_wrong_member(name, "true or false");
    }
    flag = member->get<bool>();
    return {};
}

control_json control_wrong_member(const char* name, const char* wanted) {
    return control_answer(control_result::usage,
                          std::string("member \"") + name + "\" of the request must be " + wanted);
}

void control_add_warnings(control_json& answer, const std::vector<std::string>& warnings) {
    for (const std::string& warning : warnings) {
        answer["warnings"].push_back(warning);
    }
}

control_json control_data_answer(control_json data) {
    control_json answer = control_answer(control_result::done);
    answer["data"] = std::move(data);
    return answer;
}

control_json control_call(const control_json& request, const control_peer& peer) {
    const call_row* row = find_call(request);
    if (row != nullptr) {
        return answer_call(*row, request, peer);
    }
    const std::string* name = control_text_member(request, "call");
    return control_answer(control_result::usage,
                          "unknown call \"" + text_escape(name == nullptr ? "" : *name, 40) + '"');
}

bool control_may_be_answered_meanwhile(const control_json& request) {
    const call_row* row = find_call(request);
    return row == nullptr || (row->meanwhile != nullptr && row->meanwhile(request));
}

control_json control_progress() {
    const process_step& step = process_manager_current_step();
    return step.work.empty() ? control_json()
                             : control_json{{"work", step.work}, {"done", step.done}, {"total", step.total}};
}
