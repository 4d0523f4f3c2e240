/// Calls on access lists. Request members: family ("ipv4" or "ipv6"), name, and for acl_set either `lines` (an array of
/// texts) or `entries` (an array of objects), and `empty`: true if the list may be without entries; `check`: true if the
/// list is only to be checked, and `yes`: true if a new login like the peer's may fail afterwards. For acl_delete,
/// `absent_ok`: true if there need not be such a list.
#include <algorithm>
#include <vector>

#include "common/line_changes.h"
#include "common/text.h"
#include "linux/access_lists/acl_json.h"
#include "linux/access_lists/acl_line.h"
#include "linux/access_lists/acl_verification.h"
#include "linux/access_lists/acl_warnings.h"
#include "linux/access_lists/list_users.h"
#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"
#include "linux/control/lock_out.h"
#include "linux/lockout/proposed_change.h"

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
        return control_answer(control_result::refused,
                              "access list \"" + text_escape_quoted(*name, control_shown_name_max) +
                                  "\": expected a name of 1 to 64 letters, digits, '_', '-' and '.', "
                                  "not beginning with '-' or '.'");
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

/// Sorts the entries. Those without a sequence number get the previous one plus ten, in their record as well.
control_json read_objects(uint32_t family, const control_json& objects, std::vector<acl_stored_entry>& entries) {
    uint32_t last = 0;
    for (size_t i = 0; i < objects.size(); i++) {
        control_json object = objects[i];
        if (object.is_object() && !object.contains("SequenceNumber")) {
            object["SequenceNumber"] = last + 10;
        }
        acl_stored_entry entry = {};
        std::string error;
        if (!acl_entry_from_json(family, object, entry, error)) {
            return refuse("entry", i + 1, error);
        }
        if (entry.sequence <= last) {
            return refuse("entry", i + 1,
                          "SequenceNumber: " + std::to_string(entry.sequence) +
                              "; expected a number greater than the previous entry's, " + std::to_string(last));
        }
        last = entry.sequence;
        entries.push_back(std::move(entry));
    }
    return {};
}

control_json read_list(uint32_t family, const control_json& request, std::vector<acl_stored_entry>& entries) {
    const auto lines = request.find("lines");
    const auto objects = request.find("entries");
    if (lines != request.end() && lines->is_array()) {
        return read_lines(family, *lines, entries);
    }
    if (objects != request.end() && objects->is_array()) {
        return read_objects(family, *objects, entries);
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

/// Refuses a list that could be stored but not loaded. Returns null if nothing is wrong with it.
control_json check_loadable(const wished_list& wish, const std::vector<acl_stored_entry>& entries) {
    const acl_objection objection = acl_check_list(wish.family->code, entries);
    std::string message;
    for (const std::string& refusal : objection.refusals) {
        message += (message.empty() ? "" : "\n") + refusal;
    }
    if (!message.empty()) {
        return control_answer(control_result::refused, message);
    }
    return objection.failure.empty()
               ? control_json()
               : control_answer(control_result::failed,
                                "access list " + wish.name +
                                    ": cannot be checked, nothing has been changed: " + objection.failure);
}

/// Returns whether the list is stored with exactly these entries.
bool is_stored(const wished_list& wish, const std::vector<acl_stored_entry>& entries) {
    std::vector<acl_stored_entry> stored;
    return acl_list_entries(wish.family->code, wish.name, stored) == PLATFORM_OK &&
           std::equal(stored.begin(), stored.end(), entries.begin(), entries.end(),
                      [](const acl_stored_entry& one, const acl_stored_entry& other) {
                          return one.sequence == other.sequence && one.record == other.record;
                      });
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

/// A request to store a list.
struct list_change {
    wished_list wish = {};
    std::vector<acl_stored_entry> entries = {};
    bool check_only = false;
    bool accepts_lock_out = false;  ///< see control_read_acceptance
    bool is_known = false;          ///< the list is stored with these entries
    bool is_kept = false;           ///< and need not be loaded again
    std::vector<std::string> warnings = {};
};

/// Refuses entries that do not admit a new login like the peer's. Returns null if they do, or if the request accepts that.
control_json check_own_source(list_change& change, const control_peer& peer) {
    const std::optional<login_session> session = login_session_of(peer.pid);
    if (!session) {
        return {};
    }
    const std::vector<std::string> reasons =
        lockout_of_list(*session, change.wish.family->code, change.wish.name, change.entries);
    change.warnings = control_lock_out_warnings(reasons);
    return reasons.empty() || change.accepts_lock_out || change.check_only ? control_json()
                                                                           : control_refuse_lock_out(reasons);
}

/// Reads and checks a request to store a list. Returns null, or an answer that refuses it.
control_json read_change(const control_json& request, const control_peer& peer, list_change& change) {
    control_json problem = control_flag_member(request, "check", change.check_only);
    if (problem.is_null()) {
        problem = control_read_acceptance(request, change.accepts_lock_out);
    }
    if (problem.is_null()) {
        problem = read_wish(request, change.wish);
    }
    if (problem.is_null()) {
        problem = read_list(change.wish.family->code, request, change.entries);
    }
    if (!problem.is_null()) {
        return problem;
    }
    change.is_known = is_stored(change.wish, change.entries);
    // Does not load an identical list again unless something is not in force.
    change.is_kept = change.is_known && !enforcement_any_failed();
    if (change.entries.empty()) {
        problem = check_empty(change.wish, request);
    } else if (!change.is_kept) {
        problem = check_loadable(change.wish, change.entries);
    }
    return problem.is_null() ? check_own_source(change, peer) : problem;
}

platform_status replace_list(const control_peer& peer, const wished_list& wish,
                             const std::vector<acl_stored_entry>& entries) {
    const platform_status status = acl_list_replace(wish.family->code, wish.name, entries);
    control_audit(peer, "acl set", status == PLATFORM_OK ? control_result::done : control_result::failed,
                  {audited(wish)});
    if (status == PLATFORM_OK) {
        acl_service_notify();
    }
    return status;
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

/// Returns the answer to a check: what would become of the list, the lines that differ, and whose rules would be replaced.
control_json answer_check(const list_change& change) {
    const wished_list& wish = change.wish;
    std::vector<acl_stored_entry> stored;
    const bool exists = acl_list_entries(wish.family->code, wish.name, stored) == PLATFORM_OK;
    control_json answer = control_answer(control_result::done);
    answer["check"] = true;
    answer["changed"] = !change.is_known;
    answer["entries"] = change.entries.size();
    answer["list"] = {{"family", wish.family->name},
                      {"name", wish.name},
                      {"outcome", change.is_known ? "unchanged"
                                  : exists        ? "changed"
                                                  : "created"},
                      {"lines", line_changes(text_of(wish, stored), text_of(wish, change.entries))}};
    answer["rules"] = control_json::array();
    for (const acl_list_user& user : acl_list_users(wish.family->code, wish.name)) {
        if (!change.is_known) {
            answer["rules"].push_back({{"vrf", user.vrf_name}, {"service", user.service}});
        }
    }
    control_add_warnings(answer, change.warnings);
    return answer;
}

}  // namespace

control_json control_call_acl_set(const control_json& request, const control_peer& peer) {
    list_change change;
    control_json problem = read_change(request, peer, change);
    if (!problem.is_null()) {
        if (!change.check_only) {
            audit_refusal(peer, change.wish, problem);
        }
        return problem;
    }
    if (change.check_only) {
        return answer_check(change);
    }
    const platform_status status =
        change.is_kept ? platform_status{PLATFORM_OK} : replace_list(peer, change.wish, change.entries);
    if (status != PLATFORM_OK) {
        return failure(change.wish, status);
    }
    if (change.is_kept) {
        control_audit(peer, "acl set", control_result::done, {audited(change.wish) + " unchanged"});
    }
    control_json answer = control_answer(control_result::done);
    answer["changed"] = !change.is_known;
    answer["entries"] = change.entries.size();
    control_add_warnings(answer, change.warnings);
    control_add_warnings(answer, acl_list_warnings(change.wish.family->code, change.wish.name));
    return answer;
}

control_json control_call_acl_delete(const control_json& request, const control_peer& peer) {
    wished_list wish;
    control_json problem = read_wish(request, wish);
    if (!problem.is_null()) {
        return problem;
    }
    bool absent_ok = false;
    problem = control_flag_member(request, "absent_ok", absent_ok);
    if (!problem.is_null()) {
        return problem;
    }
    const platform_status status = acl_list_delete(wish.family->code, wish.name);
    const bool is_absent = status == DATASTORE_NO_SUCH_LIST && absent_ok;
    if (status != PLATFORM_OK && !is_absent) {
        return failure(wish, status);
    }
    control_audit(peer, "acl delete", control_result::done, {audited(wish) + (is_absent ? " unchanged" : "")});
    acl_service_notify();
    control_json answer = control_answer(control_result::done);
    answer["changed"] = !is_absent;
    control_add_warnings(answer, acl_list_warnings(wish.family->code, wish.name));
    return answer;
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
