#include "linux/control/change_calls.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "common/machine_user.h"
#include "common/text.h"
#include "linux/access_lists/acl_values.h"
#include "linux/access_lists/acl_warnings.h"
#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"
#include "linux/control/key_warnings.h"
#include "linux/control/lock_out.h"
#include "linux/control/path_member.h"
#include "linux/control/service_json.h"
#include "linux/control/value.h"
#include "linux/datastore/confirmation.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/service_values.h"
#include "linux/lockout/proposed_change.h"
#include "linux/status/machine_status.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"

namespace {

/// How many refusals of one load are reported at once.
constexpr size_t refusals_max = 20;

control_result result_of(datastore_refused_by refused_by) {
    switch (refused_by) {
        case datastore_refused_by::none:
            return control_result::done;
        case datastore_refused_by::confirmation:
        case datastore_refused_by::authority:
        case datastore_refused_by::schema:
        case datastore_refused_by::verifier:
        case datastore_refused_by::rehearsal:
        case datastore_refused_by::judge:
            return control_result::refused;
        case datastore_refused_by::absent:
            return control_result::no_data;
        case datastore_refused_by::unchecked:
        case datastore_refused_by::unrehearsed:
        case datastore_refused_by::store:
        case datastore_refused_by::busy:
            break;
    }
    return control_result::failed;
}

/// Describes what became of an item. A check also reports the old and the new value of an item that would change.
control_json item_json(const datastore_item_outcome& item, bool with_values) {
    control_json json = {{"path", item.path}, {"outcome", control_outcome_name(item.outcome)}};
    if (with_values && item.outcome != datastore_outcome::unchanged) {
        if (item.previous.has_value()) {
            json["previous"] = control_stored_to_json(item.path, *item.previous);
        }
        if (item.value.has_value()) {
            json["value"] = control_stored_to_json(item.path, *item.value);
        }
    }
    return json;
}

control_json items_of(const datastore_commit_result& result, bool with_values) {
    control_json items = control_json::array();
    for (const datastore_item_outcome& item : result.items) {
        items.push_back(item_json(item, with_values));
    }
    return items;
}

bool changes_anything(const datastore_commit_result& result) {
    return std::any_of(result.items.begin(), result.items.end(),
                       [](const datastore_item_outcome& item) { return item.outcome != datastore_outcome::unchanged; });
}

/// What the audit log records about a commit: each change made and what is not in force; for a refused one, the request
/// and the reason.
std::vector<std::string> audit_entries(const std::vector<datastore_change_request>& changes,
                                       const datastore_commit_result& result) {
    std::vector<std::string> entries;
    if (result.refused_by != datastore_refused_by::none) {
        entries.push_back(result.message);
        for (const datastore_change_request& change : changes) {
            entries.push_back(change.path);
        }
        return entries;
    }
    for (const datastore_item_outcome& item : result.items) {
        if (item.outcome != datastore_outcome::unchanged) {
            entries.push_back(std::string(control_outcome_name(item.outcome)) + ' ' + item.path);
        }
    }
    if (entries.empty() && result.items.size() == 1) {
        entries.push_back("nothing to change: " + result.items[0].path);
    }
    for (const enforcement_entry& entry : result.not_in_force) {
        entries.push_back(control_not_in_force_text(entry));
    }
    return entries;
}

const char* stored_word(bool check_only) {
    return check_only ? "would be stored" : "stored";
}

/// Returns a warning for each service whose VRF has no namespace.
std::vector<std::string> waiting_warnings(const datastore_commit_result& result, bool check_only) {
    std::vector<std::string> warnings;
    for (const datastore_item_outcome& item : result.items) {
        const std::string vrf_name = item.value.has_value() ? vrf_of_service_item(item.path) : std::string();
        const std::string name = namespace_name_prefix + vrf_name;
        if (!vrf_name.empty() && !namespace_is_attached(name)) {
            warnings.push_back(text_format("%s: %s, waits for namespace %s", item.path.c_str(), stored_word(check_only),
                                           name.c_str()));
        }
    }
    return warnings;
}

/// A warning for each value that has no effect on this machine.
std::vector<std::string> effect_warnings(const datastore_commit_result& result, bool check_only) {
    std::vector<std::string> warnings;
    for (const datastore_item_outcome& item : result.items) {
        datastore_value value;
        const schema_row* row = schema_find(item.path, nullptr);
        if (row == nullptr || !item.value.has_value() || schema_load(*row, *item.value, value) != PLATFORM_OK) {
            continue;
        }
        const std::string reason = schema_not_carried_out(*row, value);
        if (!reason.empty()) {
            warnings.push_back(text_format("%s: %s, not carried out on this machine: %s", item.path.c_str(),
                                           stored_word(check_only), reason.c_str()));
        }
    }
    return warnings;
}

/// What the change would do to the machine.
control_json rehearsal_of(const rehearsal_report& report) {
    control_json files = control_json::array();
    for (const rehearsed_file& file : report.files) {
        files.push_back({{"path", file.path}, {"outcome", rehearsed_change_name(file.change)}, {"lines", file.lines}});
    }
    control_json servers = control_json::array();
    for (const rehearsed_server& server : report.servers) {
        servers.push_back({{"vrf", server.vrf_name}, {"outcome", rehearsed_action_name(server.action)}});
    }
    return {{"files", std::move(files)}, {"vrfs", report.vrfs}, {"servers", std::move(servers)}};
}

/// What the rehearsal has shown beside what it refuses.
std::vector<std::string> rehearsal_warnings(const rehearsal_report& report, bool check_only) {
    std::vector<std::string> warnings;
    if (!report.problem.empty()) {
        warnings.push_back("the change was not rehearsed before it was stored: " + report.problem);
    } else if (check_only) {
        for (const rehearsed_rejection& rejection : report.rejections) {
            warnings.push_back(rehearsed_rejection_text(rejection) + "; the present file is rejected as well");
        }
        for (const rehearsed_failure& failure : report.not_in_force) {
            warnings.push_back("would be stored, not in force: " + failure.subject + ": " + failure.reason);
        }
    }
    return warnings;
}

void add_rehearsal(control_json& answer, const rehearsal_report& report, bool check_only) {
    if (check_only) {
        answer["rehearsal"] = rehearsal_of(report);
    }
    control_add_warnings(answer, rehearsal_warnings(report, check_only));
}

using change_call = control_change_call;

datastore_commit_order order_of(const change_call& call) {
    datastore_commit_order order;
    order.authority = call.by_agent.value_or(control_peer_authority(call.peer));
    order.author.call = call.name;
    order.author.note = call.note;
    if (!call.by_agent) {
        order.author.uid = call.peer.uid;
        order.author.user = machine_user_name(call.peer.uid);
    }
    order.confirm_seconds = call.confirm_seconds;
    order.undone_commit = call.undone_commit;
    return order;
}

/// A check says what a commit would do, so it also says that the commit would be refused at present.
void add_awaited_confirmation(control_json& answer, const change_call& call) {
    datastore_confirmation awaited;
    if (call.check_only && datastore_confirmation_get(awaited) == PLATFORM_OK && awaited.number != call.undone_commit) {
        answer["confirmation_awaited"] = awaited.number;
        control_add_warnings(answer, {datastore_confirmation_demand(awaited)});
    }
}

/// Has the commit refused if a new login like the caller's would be refused after it and the caller does not accept that.
/// Stores the reasons, also those that are accepted.
void guard_login(const change_call& call, datastore_commit_order& order, std::vector<std::string>& reasons) {
    const std::optional<login_session> session = call.by_agent ? std::nullopt : login_session_of(call.peer.pid);
    if (session.has_value()) {
        order.judge = [session = *session, accepted = call.accepts_lock_out, &reasons](const auto& items,
                                                                                       const auto* rehearsal) {
            reasons = lockout_of_commit(session, items, rehearsal);
            return reasons.empty() || accepted ? std::string() : control_lock_out_message(reasons);
        };
    }
}

/// The texts of the verifiers are the same on every platform, so that what only this one offers is added here.
std::string hint_of(const std::vector<datastore_change_request>& changes, const datastore_commit_result& result) {
    const bool names_only_type = result.message.ends_with("ssh-rsa");
    return names_only_type ? control_key_hint(changes, result.path) : std::string();
}

control_json commit(const change_call& call, const std::vector<datastore_change_request>& changes) {
    std::vector<std::string> lock_out;
    datastore_commit_order order = order_of(call);
    guard_login(call, order, lock_out);
    const datastore_commit_result result = datastore_commit(changes, call.check_only, order);
    control_result outcome = result_of(result.refused_by);
    control_json answer = control_answer(outcome, result.message + hint_of(changes, result));
    if (result.refused_by == datastore_refused_by::judge) {
        answer["lock_out"] = control_lock_out_warnings(lock_out);
    }
    if (outcome == control_result::done) {
        answer["check"] = call.check_only;
        answer["changed"] = changes_anything(result);
        answer["items"] = items_of(result, call.check_only);
        if (result.number > 0) {
            answer["commit"] = result.number;
        }
        if (result.number > 0 && call.confirm_seconds > 0) {
            answer["confirm_within"] = call.confirm_seconds;
        }
        add_awaited_confirmation(answer, call);
        control_add_warnings(answer, control_lock_out_warnings(lock_out));
        control_add_warnings(answer, acl_commit_warnings(result.items));
        control_add_warnings(answer, control_key_warnings(result.items));
        control_add_warnings(answer, waiting_warnings(result, call.check_only));
        control_add_warnings(answer, effect_warnings(result, call.check_only));
        if (result.rehearsal.has_value()) {
            add_rehearsal(answer, *result.rehearsal, call.check_only);
        }
    } else if (!result.path.empty()) {
        answer["path"] = result.path;
    }
    if (!result.not_in_force.empty()) {
        outcome = control_result::not_in_force;
        control_tell_not_in_force(answer, result.not_in_force);
    }
    if (!call.check_only) {
        control_audit(call.peer, call.name, outcome, audit_entries(changes, result));
    }
    return answer;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += text.empty() ? line : '\n' + line;
    }
    return text;
}

/// The answer to a change that was refused before it reached the datastore.
control_json refuse(const change_call& call, const std::string& path, const std::vector<std::string>& refusals) {
    control_json answer = control_answer(control_result::refused, joined(refusals));
    answer["path"] = path;
    if (!call.check_only) {
        control_audit(call.peer, call.name, control_result::refused, refusals);
    }
    return answer;
}

/// One requested item: a JSON value, null to delete it, or a word as typed.
struct wished_item {
    const std::string& path;
    const control_json* value;
    const std::string* word;
    bool absent_ok = false;  ///< see datastore_change_request
};

/// The same for an access list or an imported key. A word that is not JSON is taken as a string.
std::optional<datastore_change_request> change_of_service_value(const wished_item& wish, std::string& refusal) {
    std::string error;
    const std::optional<control_json> typed =
        wish.word != nullptr ? control_json_parse(*wish.word, error) : std::nullopt;
    const control_json value = wish.word == nullptr ? *wish.value : typed.value_or(control_json(*wish.word));
    std::optional<std::string> bytes = control_service_value_from_json(wish.path, value, refusal);
    if (!bytes.has_value()) {
        refusal = schema_shown_path(wish.path) + ": " + refusal;
        return std::nullopt;
    }
    return datastore_change_request{wish.path, std::nullopt, false, std::move(bytes)};
}

/// Returns the change that carries out a wish. If the path or the value is invalid, returns nothing and stores the reason
/// in `refusal`.
std::optional<datastore_change_request> change_of(const wished_item& wish, std::string& refusal) {
    if (wish.value != nullptr && wish.value->is_null()) {
        return datastore_change_request{wish.path, std::nullopt, wish.absent_ok};
    }
    if (datastore_service_kind_of(wish.path) != nullptr) {
        return change_of_service_value(wish, refusal);
    }
    const schema_row* row = schema_find(wish.path, &refusal);
    if (row == nullptr) {
        return std::nullopt;
    }
    std::optional<datastore_value> value = wish.word != nullptr
                                               ? control_value_from_word(*row, wish.path, *wish.word, refusal)
                                               : control_value_from_json(*row, wish.path, *wish.value, refusal);
    datastore_stored stored;
    if (!value.has_value() || schema_store(*row, wish.path, *value, stored, refusal) != PLATFORM_OK) {
        return std::nullopt;
    }
    return datastore_change_request{wish.path, std::move(value)};
}

/// The errors in the items of a load.
struct load_refusals {
    control_json items = control_json::array();  ///< path and text of those that are reported
    std::vector<std::string> texts;
    size_t untold = 0;
};

void add_refusal(load_refusals& refusals, const std::string& path, const std::string& text) {
    if (refusals.texts.size() < refusals_max) {
        refusals.items.push_back({{"path", path}, {"text", text}});
        refusals.texts.push_back(text);
    } else {
        refusals.untold++;
    }
}

/// The answer to a load that was refused before it reached the datastore.
control_json refuse_load(const change_call& call, const load_refusals& refusals) {
    control_json answer = refuse(call, refusals.items[0]["path"].get<std::string>(), refusals.texts);
    answer["refusals"] = refusals.items;
    if (refusals.untold > 0) {
        answer["more_refusals"] = refusals.untold;
    }
    return answer;
}

/// Checks all items, so that the author of a file learns of all its errors at once.
std::vector<datastore_change_request> changes_of(const control_json& items, bool absent_ok, load_refusals& refusals) {
    std::vector<datastore_change_request> changes;
    changes.reserve(items.size());
    for (const auto& [path, value] : items.get_ref<const control_json::object_t&>()) {
        std::string refusal;
        std::optional<datastore_change_request> change = change_of({path, &value, nullptr, absent_ok}, refusal);
        if (change.has_value()) {
            changes.push_back(std::move(*change));
        } else {
            add_refusal(refusals, path, refusal);
        }
    }
    if (refusals.untold > 0) {
        refusals.texts.push_back(text_format("%zu more items were refused", refusals.untold));
    }
    return changes;
}

/// Commits one change. If the request gave a short path, the answer contains the full path of the item.
control_json commit_wish(const change_call& call, const control_path& wished, const datastore_change_request& change) {
    control_json answer = commit(call, {change});
    if (wished.is_short) {
        answer["path"] = wished.path;
    }
    return answer;
}

/// Sets an item for which the request gives no value: a presence item, or a tuple whose fields may all be absent.
control_json set_without_value(const change_call& call, const control_path& wished) {
    std::string refusal;
    const schema_row* row = schema_find(wished.path, &refusal);
    if (row == nullptr) {
        return refuse(call, wished.path, {refusal});
    }
    if (row->form.kind == schema_kind::presence) {
        return commit_wish(call, wished, {wished.path, true});
    }
    if (row->form.kind == schema_kind::tuple && row->rule == schema_tuple_rule::none) {
        return commit_wish(call, wished, {wished.path, datastore_fields()});
    }
    return control_answer(control_result::usage,
                          text_format("%s: the value is missing; expected %s", schema_shown_path(wished.path).c_str(),
                                      schema_expected(*row).c_str()));
}

/// Whether the requested items name a value of a service below `tree`, or the tree itself.
bool names_any_below(const control_json& items, std::string_view tree) {
    const auto& names = items.get_ref<const control_json::object_t&>();
    return std::any_of(names.begin(), names.end(), [tree](const auto& item) { return item.first.starts_with(tree); });
}

/// Adds a deletion of everything that a complete configuration replaces and that the changes do not set, and removes the
/// deletions that were requested explicitly: they are then included if the item exists, and are not an error if it does not.
platform_status add_deletions(const control_json& items, std::vector<datastore_change_request>& changes) {
    std::set<std::string, std::less<>> named;
    std::erase_if(changes, [](const datastore_change_request& change) { return change.deletes(); });
    for (const datastore_change_request& change : changes) {
        named.insert(change.path);
    }
    return control_visit_replaced(items, [&](const std::string& path) {
        if (!named.contains(path)) {
            changes.push_back({path, std::nullopt});
        }
    });
}

/// Reads the optional member "note" of a request. Returns null, or an answer that refuses it.
control_json read_note(const control_json& request, std::string& note) {
    constexpr size_t note_max = 500;
    const auto member = request.find("note");
    if (member == request.end()) {
        return {};
    }
    const std::string* text = control_text_member(request, "note");
    if (text == nullptr || text->size() > note_max || text_escape(*text, note_max) != *text) {
        return control_wrong_member("note", "a line of at most 500 bytes without control characters");
    }
    note = *text;
    return {};
}

constexpr uint64_t confirm_minutes_max = 1440;

/// Reads the optional member "confirm" and converts its minutes to seconds. Returns null, or an answer that refuses it.
control_json read_confirm(const control_json& request, uint64_t& seconds) {
    const auto minutes = request.find("confirm");
    if (minutes == request.end()) {
        return {};
    }
    if (!minutes->is_number_unsigned() || minutes->get<uint64_t>() == 0 ||
        minutes->get<uint64_t>() > confirm_minutes_max) {
        return control_wrong_member("confirm", "a number of minutes from 1 to 1440");
    }
    seconds = minutes->get<uint64_t>() * 60;
    return {};
}

struct load_manner {
    bool replace = false;    ///< deletes all stored items that the request does not set
    bool absent_ok = false;  ///< see datastore_change_request
};

control_json load(const change_call& call, const control_json& items, const load_manner& manner) {
    load_refusals refusals;
    std::vector<datastore_change_request> changes = changes_of(items, manner.absent_ok, refusals);
    if (!refusals.texts.empty()) {
        return refuse_load(call, refusals);
    }
    const platform_status status = manner.replace ? add_deletions(items, changes) : platform_status{PLATFORM_OK};
    if (status != PLATFORM_OK) {
        return control_answer(control_result::failed, text_format("the configuration cannot be read: %s (0x%x)",
                                                                  platform_status_text(status), status));
    }
    return commit(call, changes);
}

}  // namespace

const char* control_outcome_name(datastore_outcome outcome) {
    switch (outcome) {
        case datastore_outcome::created:
            return "created";
        case datastore_outcome::changed:
            return "changed";
        case datastore_outcome::deleted:
            return "deleted";
        case datastore_outcome::unchanged:
            break;
    }
    return "unchanged";
}

control_json control_commit(const control_change_call& call, const std::vector<datastore_change_request>& changes) {
    return commit(call, changes);
}

platform_status control_visit_replaced(const control_json& items,
                                       const std::function<void(const std::string& path)>& visit) {
    platform_status status = datastore_visit("/", [&visit](const std::string& path, const datastore_value&) {
        visit(path);
        return true;
    });
    for (const std::string_view tree : {acl_list_tree, datastore_imported_keys}) {
        if (status == PLATFORM_OK && names_any_below(items, tree)) {
            status = datastore_visit_service_values(
                tree, [&visit](const std::string& path, const datastore_stored&) { visit(path); });
        }
    }
    return status;
}

std::optional<datastore_change_request> control_change_from_json(const std::string& path, const control_json& value,
                                                                 std::string& refusal) {
    return change_of({path, &value, nullptr}, refusal);
}

control_json control_read_change_members(const control_json& request, control_change_call& call) {
    control_json problem = control_flag_member(request, "check", call.check_only);
    if (problem.is_null()) {
        problem = control_read_acceptance(request, call.accepts_lock_out);
    }
    return problem.is_null() ? read_note(request, call.note) : problem;
}

control_json control_call_set(const control_json& request, const control_peer& peer) {
    const control_path wished = control_item_path(request);
    if (!wished.problem.is_null()) {
        return wished.problem;
    }
    const std::string* word = control_text_member(request, "word");
    const auto value = request.find("value");
    change_call call = {"set", peer};
    if (control_json problem = control_read_change_members(request, call); !problem.is_null()) {
        return problem;
    }
    if (word == nullptr && value == request.end()) {
        return set_without_value(call, wished);
    }
    if (word == nullptr && value->is_null()) {
        return refuse(call, wished.path,
                      {text_format("%s: null is not a value; use delete to remove an item",
                                   schema_shown_path(wished.path).c_str())});
    }
    std::string refusal;
    const std::optional<datastore_change_request> change =
        change_of({wished.path, word == nullptr ? &*value : nullptr, word}, refusal);
    return change.has_value() ? commit_wish(call, wished, *change) : refuse(call, wished.path, {refusal});
}

control_json control_call_delete(const control_json& request, const control_peer& peer) {
    const control_path wished = control_item_or_folder_path(request);
    if (!wished.problem.is_null()) {
        return wished.problem;
    }
    change_call call = {"delete", peer};
    bool absent_ok = false;
    control_json problem = control_read_change_members(request, call);
    if (problem.is_null()) {
        problem = control_flag_member(request, "absent_ok", absent_ok);
    }
    return problem.is_null() ? commit_wish(call, wished, {wished.path, std::nullopt, absent_ok}) : problem;
}

control_json control_call_load(const control_json& request, const control_peer& peer) {
    const auto items = request.find("items");
    if (items == request.end() || !items->is_object()) {
        return control_wrong_member("items", "an object of paths and values");
    }
    change_call call = {"load", peer};
    load_manner manner;
    control_json problem = control_read_change_members(request, call);
    if (problem.is_null()) {
        problem = control_flag_member(request, "replace", manner.replace);
    }
    if (problem.is_null()) {
        problem = control_flag_member(request, "absent_ok", manner.absent_ok);
    }
    if (problem.is_null()) {
        problem = read_confirm(request, call.confirm_seconds);
    }
    return problem.is_null() ? load(call, *items, manner) : problem;
}
