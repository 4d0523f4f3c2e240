/// Calls on access lists. Request members: family ("ipv4" or "ipv6"), name, and for acl_set either `lines` (an array of
/// texts) or `entries` (an array of objects), and `empty`: true if the list may be without entries; `check`: true if the
/// list is only to be checked, and `yes`: true if a new login like the peer's may fail afterwards. For acl_delete,
/// `absent_ok`: true if there need not be such a list.
#include <cerrno>
#include <vector>

#include "common/line_changes.h"
#include "common/text.h"
#include "linux/access_lists/acl_json.h"
#include "linux/access_lists/acl_line.h"
#include "linux/access_lists/acl_values.h"
#include "linux/access_lists/list_users.h"
#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"
#include "linux/control/change_calls.h"
#include "linux/control/lock_out.h"

namespace {

struct family_row {
    const char* name;
    uint32_t code;
};

constexpr family_row families[] = {{"ipv4", ACL_FAMILY_IPV4}, {"ipv6", ACL_FAMILY_IPV6}};

/// The list that a request names.
struct wished_list {
    const family_row* family = nullptr;
    std::string name;
};

/// Reads family and name. Returns null, or an answer that describes the error.
control_json read_wish(const control_json& request, wished_list& wish) {
    const std::string* family = control_text_member(request, "family");
    const std::string* name = control_text_member(request, "name");
    for (const family_row& row : families) {
        wish.family = family != nullptr && *family == row.name ? &row : wish.family;
    }
    if (wish.family == nullptr) {
        return control_wrong_member("family", "ipv4 or ipv6");
    }
    if (name == nullptr) {
        return control_wrong_member("name", "a string");
    }
    if (!acl_name_is_valid(*name)) {
        return control_answer(
            control_result::refused,
            "access list \"" + text_escape_quoted(*name, control_shown_name_max) + "\": " + acl_name_form);
    }
    wish.name = *name;
    return {};
}

control_json refuse(const char* what, size_t number, const std::string& error) {
    return control_answer(control_result::refused, std::string(what) + ' ' + std::to_string(number) + ": " + error);
}

control_json failure(const wished_list& wish, platform_status status) {
    if (status == DATASTORE_NO_SUCH_LIST) {
        return control_answer(control_result::no_data,
                              std::string("no ") + wish.family->name + " access list named " + wish.name);
    }
    return control_answer(control_result::failed, text_format("access list %s: %s (0x%x)", wish.name.c_str(),
                                                              platform_status_text(status), status));
}

/// Numbers and encodes the rules. Returns null or a refusal.
control_json encode_rules(uint32_t family, std::vector<acl_rule>& rules, std::vector<acl_stored_entry>& entries) {
    std::string error;
    if (!acl_number_rules(rules, error)) {
        return control_answer(control_result::refused, error);
    }
    for (const acl_rule& rule : rules) {
        acl_stored_entry entry = {};
        const platform_status status = acl_encode_rule(family, rule, entry);
        if (status != PLATFORM_OK) {
            return refuse("entry", rule.sequence, platform_status_text(status));
        }
        entries.push_back(std::move(entry));
    }
    return {};
}

control_json read_lines(uint32_t family, const control_json& lines, std::vector<acl_stored_entry>& entries) {
    std::vector<acl_rule> rules;
    for (size_t i = 0; i < lines.size(); i++) {
        const auto* line = lines[i].get_ptr<const std::string*>();
        if (line == nullptr) {
            return control_wrong_member("lines", "an array of strings");
        }
        acl_rule rule;
        std::string error;
        if (acl_parse_line(family, *line, rule, error)) {
            rules.push_back(std::move(rule));
        } else if (!error.empty()) {
            return refuse("line", i + 1, error);
        }
    }
    return encode_rules(family, rules, entries);
}

control_json read_list(uint32_t family, const control_json& request, std::vector<acl_stored_entry>& entries) {
    const auto lines = request.find("lines");
    const auto objects = request.find("entries");
    if (lines != request.end() && lines->is_array()) {
        return read_lines(family, *lines, entries);
    }
    if (objects != request.end() && objects->is_array()) {
        std::string error;
        return acl_entries_from_json(family, *objects, entries, error) ? control_json()
                                                                       : control_answer(control_result::refused, error);
    }
    return control_wrong_member("entries", "an array of entries");
}

/// A list without entries opens the port, and is more often the result of a broken pipe than intended. Returns null if
/// the request says that it is intended.
control_json check_empty(const wished_list& wish, const control_json& request) {
    bool may_be_empty = false;
    control_json problem = control_flag_member(request, "empty", may_be_empty);
    if (!problem.is_null() || may_be_empty) {
        return problem;
    }
    return control_answer(control_result::refused, "access list " + wish.name +
                                                       ": no entries, nothing has been changed. An empty list leaves "
                                                       "the port open; if that is intended, use --empty");
}

std::string audited(const wished_list& wish) {
    return std::string(wish.family->name) + ' ' + wish.name;
}

void audit_refusal(const control_peer& peer, const wished_list& wish, const control_json& problem) {
    const std::string message = problem.value("message", "");
    std::vector<std::string> entries = {message.substr(0, message.find('\n'))};
    if (!wish.name.empty()) {
        entries.insert(entries.begin(), audited(wish));
    }
    control_audit(peer, "acl set", control_result_of_name(problem.value("result", "")), entries);
}

/// Whether there is no such list although it may not be absent. Returns null if the deletion may go on.
control_json check_presence(const wished_list& wish, bool absent_ok) {
    std::vector<acl_stored_entry> entries;
    const platform_status status = acl_list_entries(wish.family->code, wish.name, entries);
    // A damaged list can be deleted.
    const bool may_be_deleted =
        status == PLATFORM_OK || status == EBADMSG || (status == DATASTORE_NO_SUCH_LIST && absent_ok);
    return may_be_deleted ? control_json() : failure(wish, status);
}

/// Returns a list's entries in the line notation, one per line. An entry that cannot be decoded is left out.
std::string text_of(const wished_list& wish, const std::vector<acl_stored_entry>& entries) {
    std::string text;
    for (const acl_stored_entry& entry : entries) {
        acl_rule rule;
        if (acl_decode_rule(wish.family->code, entry, rule) == PLATFORM_OK) {
            text += acl_format_line(wish.family->code, rule) + '\n';
        }
    }
    return text;
}

/// Adds to the answer to a check what would become of the list, the lines that differ, and whose rules would be replaced.
void describe_check(control_json& answer, const wished_list& wish, const std::string& before,
                    const std::string& after) {
    answer["list"] = {{"family", wish.family->name},
                      {"name", wish.name},
                      {"outcome", answer["items"][0]["outcome"]},
                      {"lines", line_changes(before, after)}};
    answer["rules"] = control_json::array();
    const std::vector<acl_list_user> users = acl_list_users(wish.family->code, wish.name);
    for (const acl_list_user& user : users) {
        if (answer["changed"] == true) {
            answer["rules"].push_back({{"vrf", user.vrf_name}, {"service", user.service}});
        }
    }
}

}  // namespace

control_json control_call_acl_set(const control_json& request, const control_peer& peer) {
    wished_list wish;
    std::vector<acl_stored_entry> entries;
    control_change_call call = {.name = "acl set", .peer = peer};
    control_json problem = control_flag_member(request, "check", call.check_only);
    if (problem.is_null()) {
        problem = control_read_acceptance(request, call.accepts_lock_out);
    }
    if (problem.is_null()) {
        problem = read_wish(request, wish);
    }
    if (problem.is_null()) {
        problem = read_list(wish.family->code, request, entries);
    }
    if (problem.is_null() && entries.empty()) {
        problem = check_empty(wish, request);
    }
    if (!problem.is_null()) {
        if (!call.check_only) {
            audit_refusal(peer, wish, problem);
        }
        return problem;
    }
    // What is stored before the commit, with which the answer to a check compares.
    std::vector<acl_stored_entry> stored;
    acl_list_entries(wish.family->code, wish.name, stored);
    control_json answer = control_commit(
        call, {{acl_list_path(wish.family->code, wish.name), std::nullopt, false, acl_list_encode(entries)}});
    if (answer.contains("items")) {
        answer["entries"] = entries.size();
    }
    if (answer.contains("items") && call.check_only) {
        describe_check(answer, wish, text_of(wish, stored), text_of(wish, entries));
    }
    return answer;
}

control_json control_call_acl_delete(const control_json& request, const control_peer& peer) {
    wished_list wish;
    bool absent_ok = false;
    control_json problem = read_wish(request, wish);
    if (problem.is_null()) {
        problem = control_flag_member(request, "absent_ok", absent_ok);
    }
    if (problem.is_null()) {
        problem = check_presence(wish, absent_ok);
    }
    return problem.is_null() ? control_commit({.name = "acl delete", .peer = peer},
                                              {{acl_list_path(wish.family->code, wish.name), std::nullopt, absent_ok}})
                             : problem;
}

control_json control_call_acl_list(const control_json& /*request*/, const control_peer& /*peer*/) {
    control_json lists = control_json::array();
    for (const family_row& row : families) {
        std::vector<std::string> names;
        const platform_status status = acl_list_names(row.code, names);
        if (status != PLATFORM_OK) {
            return failure({&row, {}}, status);
        }
        for (const std::string& name : names) {
            std::vector<acl_stored_entry> entries;
            acl_list_entries(row.code, name, entries);
            lists.push_back({{"family", row.name}, {"name", name}, {"entries", entries.size()}});
        }
    }
    return control_data_answer(std::move(lists));
}

control_json control_call_acl_show(const control_json& request, const control_peer& /*peer*/) {
    wished_list wish;
    control_json problem = read_wish(request, wish);
    if (!problem.is_null()) {
        return problem;
    }
    std::vector<acl_stored_entry> entries;
    platform_status status = acl_list_entries(wish.family->code, wish.name, entries);
    control_json objects = control_json::array();
    control_json lines = control_json::array();
    for (size_t i = 0; i < entries.size() && status == PLATFORM_OK; i++) {
        acl_rule rule;
        control_json object;
        status = acl_entry_to_json(wish.family->code, entries[i], object);
        if (status == PLATFORM_OK) {
            status = acl_decode_rule(wish.family->code, entries[i], rule);
        }
        objects.push_back(std::move(object));
        lines.push_back(acl_format_line(wish.family->code, rule));
    }
    if (status != PLATFORM_OK) {
        return failure(wish, status);
    }
    control_json answer = control_data_answer(std::move(objects));
    answer["lines"] = std::move(lines);
    return answer;
}
