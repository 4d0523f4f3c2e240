/// Calls that compare the configuration with the machine, and the part of other answers that names what is not in force.
#include <algorithm>
#include <iterator>

#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"

namespace {

control_json cannot_compare() {
    return control_answer(control_result::failed,
                          "this agent cannot compare the configuration with the machine: no comparison is registered");
}

control_json comparison_failed() {
    return control_answer(control_result::failed, "the comparison failed; the agent's log says why");
}

control_json differences_json(const std::vector<enforcement_difference>& differences) {
    control_json list = control_json::array();
    for (const enforcement_difference& difference : differences) {
        list.push_back({{"subject", difference.subject}, {"text", difference.text}});
    }
    return list;
}

std::string counted(size_t count) {
    return std::to_string(count) + (count == 1 ? " difference" : " differences");
}

control_json answer_with(control_json data, size_t remaining, const char* where) {
    control_json answer = remaining == 0 ? control_answer(control_result::done)
                                         : control_answer(control_result::failed, counted(remaining) + where);
    answer["data"] = std::move(data);
    return answer;
}

/// The differences of `all` that are not among `others`.
std::vector<enforcement_difference> without(const std::vector<enforcement_difference>& all,
                                            const std::vector<enforcement_difference>& others) {
    std::vector<enforcement_difference> rest;
    std::copy_if(all.begin(), all.end(), std::back_inserter(rest), [&others](const enforcement_difference& each) {
        return std::none_of(others.begin(), others.end(),
                            [&each](const enforcement_difference& other) { return other.subject == each.subject; });
    });
    return rest;
}

void add_audit_entries(const char* outcome, const std::vector<enforcement_difference>& differences,
                       std::vector<std::string>& entries) {
    for (const enforcement_difference& difference : differences) {
        entries.push_back(std::string(outcome) + ' ' + difference.subject + ": " + difference.text);
    }
}

}  // namespace

std::string control_not_in_force_text(const enforcement_entry& entry) {
    return "stored, not in force: " + entry.subject + ": " + entry.reason;
}

void control_tell_not_in_force(control_json& answer, const std::vector<enforcement_entry>& entries) {
    control_json list = control_json::array();
    std::string message;
    for (const enforcement_entry& entry : entries) {
        list.push_back({{"subject", entry.subject}, {"reason", entry.reason}});
        message += (message.empty() ? "" : "\n") + control_not_in_force_text(entry);
    }
    answer["result"] = control_result_name(control_result::not_in_force);
    answer["message"] = message;
    answer["not_in_force"] = std::move(list);
}

control_json control_call_verify(const control_json& /*request*/, const control_peer& /*peer*/) {
    if (!enforcement_can_compare()) {
        return cannot_compare();
    }
    const enforcement_comparison comparison = enforcement_reconcile(false);
    if (comparison.remaining < 0) {
        return comparison_failed();
    }
    return answer_with(differences_json(comparison.differences), comparison.differences.size(),
                       " between the configuration and the machine");
}

control_json control_call_repair(const control_json& /*request*/, const control_peer& peer) {
    if (!enforcement_can_compare()) {
        return cannot_compare();
    }
    const enforcement_comparison repair = enforcement_reconcile(true, true);
    // Only another comparison can tell which of the differences remain.
    const enforcement_comparison rest =
        repair.remaining == 0 ? enforcement_comparison{0, {}} : enforcement_reconcile(false);
    if (rest.remaining < 0) {
        control_audit(peer, "repair", control_result::failed, {"the comparison failed"});
        return comparison_failed();
    }
    const std::vector<enforcement_difference> repaired = without(repair.differences, rest.differences);
    control_json data = {{"repaired", differences_json(repaired)}, {"remaining", differences_json(rest.differences)}};
    std::vector<std::string> entries;
    add_audit_entries("repaired", repaired, entries);
    add_audit_entries("not repaired", rest.differences, entries);
    control_json answer = answer_with(std::move(data), rest.differences.size(), " could not be repaired");
    control_audit(peer, "repair", control_result_of_name(answer["result"].get_ref<const std::string&>()), entries);
    return answer;
}
