/// The calls that read the history of commits, restore an earlier configuration and confirm a commit.
#include "linux/control/history_calls.h"

#include <algorithm>
#include <cinttypes>

#include "common/text.h"
#include "control_protocol/answer.h"
#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"
#include "linux/control/service_json.h"
#include "linux/control/value.h"
#include "linux/datastore/confirmation.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/service_values.h"

namespace {

control_json failure(platform_status status) {
    return control_answer(control_result::failed,
                          text_format("the history cannot be read: %s (0x%x)", platform_status_text(status), status));
}

/// Returns the answer to a request for the configuration after commit `number` if that configuration is not available.
control_json no_past(uint64_t number, platform_status status) {
    const uint64_t last = datastore_last_commit();
    if (status != DATASTORE_NO_SUCH_ITEM) {
        return failure(status);
    }
    if (last == 0) {
        return control_answer(control_result::no_data, "no commit has been made yet");
    }
    return control_answer(
        control_result::no_data,
        number > last ? text_format("there has been no commit %" PRIu64 "; the latest is %" PRIu64, number, last)
                      : text_format("the configuration after commit %" PRIu64
                                    " is not known any more, because later commits are no longer kept",
                                    number));
}

control_json no_number(const char* name) {
    return control_wrong_member(name, "the number of a commit");
}

bool read_number(const control_json& request, const char* name, uint64_t& number) {
    const auto member = request.find(name);
    if (member == request.end() || !member->is_number_unsigned()) {
        return false;
    }
    number = member->get<uint64_t>();
    return true;
}

using possible_value = std::optional<datastore_stored>;

datastore_outcome outcome_of(const possible_value& before, const possible_value& after) {
    if (before == after) {
        return datastore_outcome::unchanged;
    }
    if (!before.has_value()) {
        return datastore_outcome::created;
    }
    return after.has_value() ? datastore_outcome::changed : datastore_outcome::deleted;
}

void add_difference(control_json& differences, const std::string& key, const possible_value& before,
                    const possible_value& after) {
    const datastore_outcome outcome = outcome_of(before, after);
    if (outcome == datastore_outcome::unchanged) {
        return;
    }
    control_json difference = {{"path", key}, {"outcome", control_outcome_name(outcome)}};
    if (before.has_value()) {
        difference["previous"] = control_stored_to_json(key, *before);
    }
    if (after.has_value()) {
        difference["value"] = control_stored_to_json(key, *after);
    }
    differences.push_back(std::move(difference));
}

/// Returns the value of an item in an earlier configuration, or nothing if the item did not exist.
possible_value value_in(const datastore_past& past, const std::string& key) {
    const auto changed = past.find(key);
    return changed == past.end() ? datastore_present_value(key) : changed->second;
}

control_json differences_between(const datastore_past& before, const datastore_past& after) {
    datastore_past keys = before;
    keys.insert(after.begin(), after.end());
    control_json differences = control_json::array();
    for (const auto& [key, value] : keys) {
        add_difference(differences, key, value_in(before, key), value_in(after, key));
    }
    return differences;
}

control_json diff_of_commits(const control_json& request) {
    uint64_t from = datastore_last_commit() - (datastore_last_commit() > 0 ? 1 : 0);
    uint64_t to = datastore_last_commit();
    if (request.contains("from") && !read_number(request, "from", from)) {
        return no_number("from");
    }
    if (request.contains("to") && !read_number(request, "to", to)) {
        return no_number("to");
    }
    if (datastore_last_commit() == 0) {
        return no_past(0, DATASTORE_NO_SUCH_ITEM);
    }
    datastore_past before;
    datastore_past after;
    if (const platform_status status = datastore_past_at(from, before); status != PLATFORM_OK) {
        return no_past(from, status);
    }
    if (const platform_status status = datastore_past_at(to, after); status != PLATFORM_OK) {
        return no_past(to, status);
    }
    return control_data_answer(differences_between(before, after));
}

/// A configuration to compare with: the wanted values by path. What has no value is to be absent.
using compared_values = std::map<std::string, possible_value>;

/// Converts the items of a request. Returns false and stores the reasons in `refusals` if any is invalid.
bool read_compared(const control_json& items, compared_values& compared, std::string& refusals) {
    for (const auto& [path, value] : items.get_ref<const control_json::object_t&>()) {
        std::string refusal;
        std::optional<datastore_change_request> change = control_change_from_json(path, value, refusal);
        datastore_stored stored;
        if (change.has_value() && change->service_value.has_value()) {
            stored.bytes = std::move(*change->service_value);
        }
        if (!change.has_value() ||
            (change->value.has_value() &&
             schema_store(*schema_find(path, nullptr), path, *change->value, stored, refusal) != PLATFORM_OK)) {
            refusals += (refusals.empty() ? "" : "\n") + refusal;
        } else if (!change->deletes()) {
            compared[path] = std::move(stored);
        }
    }
    return refusals.empty();
}

/// Compares the stored configuration with another complete configuration, which is given as an object that maps paths to
/// values.
control_json diff_with_items(const control_json& items) {
    compared_values compared;
    std::string refusals;
    if (!read_compared(items, compared, refusals)) {
        return control_answer(control_result::refused, refusals);
    }
    const platform_status status =
        control_visit_replaced(items, [&compared](const std::string& path) { compared.try_emplace(path); });
    if (status != PLATFORM_OK) {
        return failure(status);
    }
    control_json differences = control_json::array();
    for (const auto& [path, value] : compared) {
        add_difference(differences, path, datastore_present_value(path), value);
    }
    return control_data_answer(std::move(differences));
}

/// Returns the changes that restore an earlier configuration. If they cannot be determined, returns none and stores the
/// reason in `refusal`.
std::vector<datastore_change_request> changes_to(const datastore_past& past, std::string& refusal) {
    std::vector<datastore_change_request> changes;
    for (const auto& [path, stored] : past) {
        if (stored == datastore_present_value(path)) {
            continue;
        }
        datastore_change_request change = {path, std::nullopt};
        if (stored.has_value() && datastore_service_kind_of(path) != nullptr) {
            change.service_value = stored->bytes;
        } else if (stored.has_value()) {
            const schema_row* row = schema_find(path, &refusal);
            if (row == nullptr || schema_load(*row, *stored, change.value.emplace()) != PLATFORM_OK) {
                refusal = refusal.empty() ? text_format("%s: the former value is damaged", path.c_str()) : refusal;
                return {};
            }
        }
        changes.push_back(std::move(change));
    }
    return changes;
}

control_json history_entry(const datastore_kept_commit& commit) {
    control_json entry = {{"number", commit.number},
                          {"time", text_utc_time(commit.time)},
                          {"user", datastore_author_name(commit.author)},
                          {"uid", commit.author.uid.has_value() ? control_json(*commit.author.uid) : control_json()},
                          {"call", commit.author.call},
                          {"changes", commit.changes.size()},
                          {"note", commit.author.note}};
    return entry;
}

}  // namespace

control_json control_roll_back(const control_change_call& call, uint64_t number) {
    datastore_past past;
    const platform_status status = datastore_past_at(number, past);
    if (status != PLATFORM_OK) {
        return no_past(number, status);
    }
    std::string refusal;
    const std::vector<datastore_change_request> changes = changes_to(past, refusal);
    return refusal.empty() ? control_commit(call, changes) : control_answer(control_result::refused, refusal);
}

control_json control_call_history(const control_json& /*request*/, const control_peer& /*peer*/) {
    control_json entries = control_json::array();
    const platform_status status = datastore_visit_history([&entries](const datastore_kept_commit& commit) {
        entries.push_back(history_entry(commit));
        return true;
    });
    if (status != PLATFORM_OK) {
        return failure(status);
    }
    datastore_confirmation awaited;
    control_json answer = control_data_answer(std::move(entries));
    if (datastore_confirmation_get(awaited) == PLATFORM_OK) {
        answer["warnings"] = {datastore_confirmation_demand(awaited)};
    }
    return answer;
}

control_json control_call_diff(const control_json& request, const control_peer& /*peer*/) {
    const auto items = request.find("items");
    if (items == request.end()) {
        return diff_of_commits(request);
    }
    return items->is_object() ? diff_with_items(*items)
                              : control_wrong_member("items", "an object of paths and values");
}

control_json control_call_rollback(const control_json& request, const control_peer& peer) {
    uint64_t number = 0;
    control_change_call call = {.name = "rollback", .peer = peer};
    if (!read_number(request, "number", number)) {
        return no_number("number");
    }
    control_json problem = control_read_change_members(request, call);
    if (!problem.is_null()) {
        return problem;
    }
    if (call.note.empty()) {
        call.note = text_format("back to commit %" PRIu64, number);
    }
    datastore_confirmation awaited;
    if (datastore_confirmation_get(awaited) == PLATFORM_OK && number + 1 == awaited.number) {
        call.undone_commit = awaited.number;
    }
    return control_roll_back(call, number);
}

control_json control_call_confirm(const control_json& /*request*/, const control_peer& peer) {
    datastore_confirmation awaited;
    platform_status status = datastore_confirmation_get(awaited);
    if (status == DATASTORE_NO_SUCH_ITEM) {
        return control_answer(control_result::no_data, "no commit awaits a confirmation");
    }
    status = datastore_confirm();
    const control_result result = status == PLATFORM_OK ? control_result::done : control_result::failed;
    control_audit(peer, "confirm", result, {text_format("commit %" PRIu64, awaited.number)});
    if (result != control_result::done) {
        return control_answer(result, text_format("the confirmation could not be stored: %s (0x%x)",
                                                  platform_status_text(status), status));
    }
    control_json answer = control_answer(result);
    answer["commit"] = awaited.number;
    return answer;
}
