/// Calls on local directives. Request members: `vrf` (a VRF, or "all"); for local_check and local_set also `text`, the whole text
/// of that file; and for local_set also `expected`, the text that the change is based on, and `yes`. An empty text removes
/// the file. The answers' data is an array of objects with place, directive and, of a judgement, outcome and text.
#include <algorithm>
#include <optional>
#include <set>
#include <vector>

#include "common/files.h"
#include "common/text.h"
#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"
#include "linux/control/lock_out.h"
#include "linux/local_directives/local_files.h"
#include "linux/local_directives/local_judgement.h"
#include "linux/lockout/login_session.h"
#include "linux/lockout/login_settings.h"
#include "linux/status/machine_status.h"

namespace {

/// VRFs with a file of their own, for which a file of all VRFs is judged. More are judged when their servers start.
constexpr size_t judged_vrfs_max = 16;

constexpr size_t translation_max = size_t{1024} * 1024;

/// Reads the member `vrf`. Returns null, or an answer that describes the error.
control_json read_local_name(const control_json& request, std::string& name) {
    const std::string* member = control_text_member(request, "vrf");
    if (member == nullptr) {
        return control_wrong_member("vrf", "a string");
    }
    if (!local_file_name_is_valid(*member)) {
        return control_answer(
            control_result::refused,
            text_format("\"%s\" is not the name of a VRF; expected letters, digits, '_', '-' and '.', "
                        "the first neither '-' nor '.'",
                        text_escape_quoted(*member, control_shown_name_max).c_str()));
    }
    name = *member;
    return {};
}

control_json directive_json(const judged_directive& one) {
    return {{"outcome", one.outcome},
            {"place", one.place},
            {"directive", one.directive},
            {"text", one.text},
            {"vrf", one.vrf.empty() ? control_json() : control_json(one.vrf)}};
}

/// The judgement of a file, for one VRF or all.
struct file_judgement {
    std::vector<judged_directive> directives;
    std::string failure;
    bool is_refused = false;
    bool has_reserved = false;
};

/// Adds what is new: what only one VRF refuses is told with its name.
void add_judgement(file_judgement& whole, const local_judgement& part, const std::string& vrf_name) {
    for (judged_directive one : part.directives) {
        const bool is_known = std::any_of(whole.directives.begin(), whole.directives.end(), [&](const auto& other) {
            return other.place == one.place && other.directive == one.directive &&
                   (one.outcome != "refused" || (other.outcome == one.outcome && other.text == one.text));
        });
        if (!is_known && (whole.directives.empty() || vrf_name.empty() || one.outcome == "refused")) {
            one.vrf = vrf_name;
            whole.directives.push_back(std::move(one));
        }
    }
    whole.is_refused = whole.is_refused || part.is_refused();
    whole.failure = whole.failure.empty() ? part.failure : whole.failure;
}

bool is_of_file(const judged_directive& one, const std::string& path) {
    return one.place.starts_with(path + ", ");
}

file_judgement judge_file(const std::string& name, const std::optional<std::string>& text) {
    const bool is_of_all = name == local_file_of_all;
    std::optional<proposed_local_file> proposed;
    if (text.has_value()) {
        proposed = {!is_of_all, *text};
    }
    file_judgement whole;
    const local_judgement first = local_directives_judge(is_of_all ? "" : name, proposed);
    whole.directives = first.directives;
    whole.is_refused = first.is_refused();
    whole.failure = first.failure;
    std::vector<std::string> others = is_of_all ? local_file_vrfs() : std::vector<std::string>();
    others.resize(std::min(others.size(), judged_vrfs_max));
    for (const std::string& vrf_name : others) {
        add_judgement(whole, local_directives_judge(vrf_name, proposed), vrf_name);
    }
    whole.has_reserved =
        std::any_of(whole.directives.begin(), whole.directives.end(), [&](const judged_directive& one) {
            return one.is_reserved_to_root && is_of_file(one, local_file_path_of(name));
        });
    return whole;
}

control_json judgement_json(const file_judgement& judgement) {
    control_json list = control_json::array();
    for (const judged_directive& one : judgement.directives) {
        list.push_back(directive_json(one));
    }
    return list;
}

control_json judgement_answer(const file_judgement& judgement) {
    if (!judgement.failure.empty()) {
        return control_answer(control_result::failed, judgement.failure);
    }
    const auto count = std::count_if(judgement.directives.begin(), judgement.directives.end(),
                                     [](const judged_directive& one) { return one.outcome == "refused"; });
    control_json answer = judgement.is_refused
                              ? control_answer(control_result::refused,
                                               count == 1 ? "1 line or file is refused"
                                                          : std::to_string(count) + " lines or files are refused")
                              : control_answer(control_result::done);
    answer["data"] = judgement_json(judgement);
    return answer;
}

/// Why a new login like the peer's would be refused with the proposed text.
std::vector<std::string> reasons_of_lock_out(const control_peer& peer, const std::string& name,
                                             const std::string& text) {
    const std::optional<login_session> session = login_session_of(peer.pid);
    const bool is_of_all = name == local_file_of_all;
    launch_record record;
    std::string present;
    if (!session || (!is_of_all && session->vrf_name != name) ||
        launch_record_read(session->vrf_name, record) != PLATFORM_OK ||
        file_read(record.config, translation_max, present) != PLATFORM_OK) {
        return {};
    }
    const local_judgement proposed = local_directives_judge(session->vrf_name, proposed_local_file{!is_of_all, text});
    const auto settings_of = [&](const std::string& translation) {
        return local_settings_for(translation, session->user, session->source, session->connection.destination_port);
    };
    return lockout_of_settings(*session, settings_of(present), settings_of(proposed.translation));
}

control_json failed_access(const std::string& name, platform_status status) {
    return control_answer(control_result::failed,
                          text_format("%s: %s", local_file_path_of(name).c_str(), platform_status_text(status)));
}

/// Whoever can write to such a file can become root.
control_json check_reservation(const control_peer& peer, const std::string& name, const file_judgement& proposed) {
    if (peer.uid == 0 || (!proposed.has_reserved && !judge_file(name, std::nullopt).has_reserved)) {
        return {};
    }
    return control_answer(
        control_result::refused,
        text_format("permission denied: %s has directives with which one can become root "
                    "(AuthorizedKeysFile, ForceCommand or ChrootDirectory), so only root may change it",
                    local_file_path_of(name).c_str()));
}

/// Has the servers take over what the files have. Their restarts are repairs: a server that runs with other settings than it
/// would be started with is restarted.
control_json take_over(control_json answer) {
    const enforcement_comparison comparison = enforcement_reconcile(true);
    control_json servers = control_json::array();
    for (const enforcement_difference& difference : comparison.differences) {
        constexpr std::string_view server = "server ";
        if (difference.subject.starts_with(server)) {
            servers.push_back(difference.subject.substr(server.size()));
        }
    }
    answer["restarted"] = std::move(servers);
    return answer;
}

/// What keeps the text from being stored; null if nothing does.
control_json check_text(const control_json& request, const control_peer& peer, const std::string& name,
                        const std::string& text, std::vector<std::string>& accepted_reasons) {
    bool accepts_lock_out = false;
    control_json problem = control_read_acceptance(request, accepts_lock_out);
    if (!problem.is_null()) {
        return problem;
    }
    const file_judgement judgement = judge_file(name, text);
    if (judgement.is_refused || !judgement.failure.empty()) {
        return judgement_answer(judgement);
    }
    problem = check_reservation(peer, name, judgement);
    if (problem.is_null()) {
        accepted_reasons = reasons_of_lock_out(peer, name, text);
        problem =
            accepted_reasons.empty() || accepts_lock_out ? control_json() : control_refuse_lock_out(accepted_reasons);
    }
    return problem;
}

control_json store_text(const control_json& request, const control_peer& peer, const std::string& name,
                        const std::string& text) {
    std::string present;
    platform_status status = local_file_read(name, present);
    const std::string* expected = control_text_member(request, "expected");
    if (status == PLATFORM_OK && expected != nullptr && *expected != present) {
        return control_answer(control_result::refused,
                              local_file_path_of(name) + " was changed by somebody else in the meantime");
    }
    std::vector<std::string> reasons;
    control_json problem = check_text(request, peer, name, text, reasons);
    if (!problem.is_null()) {
        return problem;
    }
    // A link, or another file that cannot be read, is replaced.
    const bool is_changed = status != PLATFORM_OK || present != text;
    status = is_changed ? local_file_replace(name, text) : platform_status{PLATFORM_OK};
    if (status != PLATFORM_OK) {
        return failed_access(name, status);
    }
    control_json answer = take_over(control_answer(control_result::done));
    answer["changed"] = is_changed;
    answer["path"] = local_file_path_of(name);
    control_add_warnings(answer, control_lock_out_warnings(reasons));
    return answer;
}

const char* local_state_word(launch_local state) {
    constexpr const char* words[] = {"none", "current", "last_accepted", "left_out"};
    return words[static_cast<size_t>(state)];
}

/// The local directives in the file that a server runs with.
control_json in_force_json(const std::string& vrf_name, const launch_record& record) {
    control_json directives = control_json::array();
    std::string text;
    if (file_read(record.config, translation_max, text) == PLATFORM_OK) {
        for (const local_directive& one : local_directives_in(text)) {
            directives.push_back({{"place", one.place}, {"directive", one.text}});
        }
    }
    return {{"vrf", vrf_name},
            {"in_use", local_state_word(record.local)},
            {"directives", std::move(directives)},
            {"problems", record.local_problems}};
}

}  // namespace

control_json control_local_state(const launch_record& record) {
    return {{"in_use", local_state_word(record.local)}, {"problems", record.local_problems}};
}

control_json control_call_local_show(const control_json& request, const control_peer& /*peer*/) {
    const std::string* wanted = control_text_member(request, "vrf");
    configured_services configured;
    const platform_status status = configured_services_read(configured);
    if (status != PLATFORM_OK) {
        return control_answer(control_result::failed,
                              text_format("cannot read the configuration: %s", platform_status_text(status)));
    }
    control_json list = control_json::array();
    for (const auto& [vrf_name, services] : configured) {
        launch_record record;
        if ((wanted == nullptr || *wanted == vrf_name) && launch_record_read(vrf_name, record) == PLATFORM_OK) {
            list.push_back(in_force_json(vrf_name, record));
        }
    }
    if (wanted != nullptr && list.empty()) {
        return control_answer(
            control_result::no_data,
            text_format("VRF %s has no server", text_escape(*wanted, control_shown_name_max).c_str()));
    }
    return control_data_answer(std::move(list));
}

control_json control_call_local_read(const control_json& request, const control_peer& /*peer*/) {
    std::string name;
    control_json problem = read_local_name(request, name);
    if (!problem.is_null()) {
        return problem;
    }
    std::string text;
    const platform_status status = local_file_read(name, text);
    if (status != PLATFORM_OK) {
        return failed_access(name, status);
    }
    if (!text_is_utf8(text)) {
        return control_answer(control_result::failed, local_file_path_of(name) + ": not valid UTF-8");
    }
    control_json answer = control_data_answer(text);
    answer["path"] = local_file_path_of(name);
    return answer;
}

control_json control_call_local_check(const control_json& request, const control_peer& /*peer*/) {
    std::string name;
    control_json problem = read_local_name(request, name);
    if (!problem.is_null()) {
        return problem;
    }
    const std::string* text = control_text_member(request, "text");
    return judgement_answer(judge_file(name, text == nullptr ? std::nullopt : std::optional(*text)));
}

control_json control_call_local_set(const control_json& request, const control_peer& peer) {
    std::string name;
    control_json problem = read_local_name(request, name);
    if (!problem.is_null()) {
        return problem;
    }
    const std::string* text = control_text_member(request, "text");
    if (text == nullptr) {
        return control_wrong_member("text", "a string");
    }
    control_json answer = store_text(request, peer, name, *text);
    const control_result result = control_result_of_name(answer["result"].get_ref<const std::string&>());
    control_audit(peer, "local set", result, {local_file_path_of(name) + ' ' + answer.value("message", "")});
    return answer;
}

control_json control_call_local_apply(const control_json& /*request*/, const control_peer& peer) {
    control_json answer = take_over(control_answer(control_result::done));
    answer["changed"] = !answer["restarted"].empty();
    control_audit(peer, "local apply", control_result::done, {"restarted servers: " + answer["restarted"].dump()});
    return answer;
}
