/// Calls on users' public keys. Request members: `user`, optional for key_list; for key_import also `text`, the content of an
/// authorized_keys file, and `replace`, which is true if the user's other imported keys are deleted; for key_export and
/// key_delete optionally `fingerprint`, which selects one of the user's keys; and for key_delete also `absent_ok`, which is
/// true if it is not an error that the user has no such key. The two changes also have `yes`, see lock_out.h.
#include <algorithm>
#include <cerrno>
#include <ctime>
#include <vector>

#include "common/machine_user.h"
#include "common/text.h"
#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"
#include "linux/control/change_calls.h"
#include "linux/control/key_warnings.h"
#include "linux/control/lock_out.h"
#include "linux/host/key_store_internal.h"
#include "user_keys/key_options.h"

namespace {

/// Reads the member `user`. Returns null, or an answer that describes the error.
control_json read_user(const control_json& request, std::string& user) {
    const std::string* name = control_text_member(request, "user");
    if (name == nullptr) {
        return control_wrong_member("user", "a string");
    }
    if (!key_user_is_valid(*name)) {
        return control_answer(
            control_result::refused,
            text_format("user \"%s\": expected a name of 1 to 64 letters, digits, '_', '-' and '.', the first neither "
                        "'-' nor '.'",
                        text_escape_quoted(*name, control_shown_name_max).c_str()));
    }
    user = *name;
    return {};
}

/// Whether the peer may change the user's key. Returns null, or an answer that says why not.
control_json check_permission(const control_peer& peer, const std::string& user) {
    const std::string reason =
        control_peer_authority(peer) == datastore_authority::root ? std::string() : datastore_key_reserved(user);
    return reason.empty() ? control_json() : control_answer(control_result::refused, reason);
}

/// A key for a name that nobody has would wait for whoever is given the name.
control_json check_existence(const std::string& user) {
    return machine_user_find(user) == machine_user::unknown
               ? control_answer(control_result::refused,
                                text_format("user %s does not exist on this machine", user.c_str()))
               : control_json();
}

/// Returns the answer to a call that has failed before its commit.
control_json answer_of(const std::string& user, platform_status status) {
    const char* name = user.c_str();
    switch (status) {
        case DATASTORE_NO_SUCH_ITEM:
            return control_answer(control_result::no_data, text_format("user %s has no key", name));
        case KEY_OTHER_ORIGIN:
            return control_answer(control_result::refused,
                                  text_format("user %s has a configured key; delete %s to remove it", name,
                                              key_record_item(user).c_str()));
        default:
            return control_answer(control_result::failed,
                                  text_format("user %s: %s (0x%x)", name, platform_status_text(status), status));
    }
}

control_json audited_refusal(const control_peer& peer, const char* call, const std::string& user,
                             control_json refusal) {
    control_audit(peer, call, control_result_of_name(refusal.value("result", "")), {user});
    return refusal;
}

/// Reads the imported keys of a user who is to get or lose some; none if the user has none or the record is damaged, because
/// it can be replaced and deleted. Returns KEY_OTHER_ORIGIN if the user has a configured key, which the calls on imported keys
/// must not change. Stores in `has_record` whether anything is stored.
platform_status read_imported(const std::string& user, std::vector<authorized_key>& keys, bool& has_record) {
    key_record present;
    const platform_status status = key_store_find(user, present);
    if (status == PLATFORM_OK && present.origin != key_origin::exec_mode) {
        return KEY_OTHER_ORIGIN;
    }
    keys.assign(present.keys.begin(), present.keys.end());
    has_record = status == PLATFORM_OK || status == EBADMSG;
    return has_record || status == DATASTORE_NO_SUCH_ITEM ? platform_status{PLATFORM_OK} : status;
}

/// Why the servers do not accept a key at present; null if they do.
control_json reason_of_rejection(const authorized_key& key, bool is_fips_mode) {
    key_options options;
    std::string refusal;
    if (is_fips_mode && !public_key_is_approved_for_fips(key.key.type)) {
        return "not approved for FIPS mode";
    }
    const bool has_expired =
        key_options_read(key.options, options, refusal) && options.expires && *options.expires <= time(nullptr);
    return has_expired ? control_json("expired") : control_json();
}

control_json key_json(const std::string& user, key_origin origin, const key_with_time& key, bool is_fips_mode) {
    return {{"user", user},
            {"type", key.key.type},
            {"bits", key.key.bits},
            {"origin", origin == key_origin::exec_mode ? "imported" : "configured"},
            {"since", text_utc_time(key.time)},
            {"fingerprint", public_key_fingerprint(key.key)},
            {"options", key.options},
            {"comment", key.comment},
            {"key", public_key_text(key.key)},
            {"approved_for_fips", public_key_is_approved_for_fips(key.key.type)},
            {"not_accepted", reason_of_rejection(key, is_fips_mode)}};
}

control_json unreadable_keys(platform_status status) {
    return control_answer(control_result::failed,
                          text_format("cannot read the keys: %s (0x%x)", platform_status_text(status), status));
}

/// Reads the optional member `fingerprint`. Returns null, or an answer that describes the error.
control_json read_fingerprint(const control_json& request, std::string& fingerprint) {
    if (!request.contains("fingerprint")) {
        return {};
    }
    const std::string* text = control_text_member(request, "fingerprint");
    if (text == nullptr) {
        return control_wrong_member("fingerprint", "a string");
    }
    if (!text->starts_with("SHA256:")) {
        return control_answer(control_result::refused,
                              text_format("\"%s\" is not a fingerprint; expected SHA256:..., as `key list` prints it",
                                          text_escape_quoted(*text, control_shown_name_max).c_str()));
    }
    fingerprint = *text;
    return {};
}

control_json no_such_key(const std::string& user, const std::string& fingerprint) {
    return control_answer(control_result::no_data,
                          text_format("user %s has no key %s; `key list %s` prints the user's keys", user.c_str(),
                                      text_escape(fingerprint, control_shown_name_max).c_str(), user.c_str()));
}

template <typename keys>
auto find_key(keys& list, const std::string& fingerprint) {
    return std::find_if(list.begin(), list.end(), [&fingerprint](const authorized_key& key) {
        return public_key_fingerprint(key.key) == fingerprint;
    });
}

/// Adds keys to those that a user has, or changes the options and comments of those.
void merge_keys(const std::vector<authorized_key>& added, std::vector<authorized_key>& keys) {
    for (const authorized_key& key : added) {
        const auto same = std::find_if(keys.begin(), keys.end(),
                                       [&key](const authorized_key& other) { return other.key == key.key; });
        if (same == keys.end()) {
            keys.push_back(key);
        } else {
            *same = key;
        }
    }
}

/// The change of a commit after which a user has these imported keys. Without any, the value is deleted.
platform_status change_to(const std::string& user, const std::vector<authorized_key>& keys, bool absent_ok,
                          datastore_change_request& change) {
    change = {key_store_import_path(user), std::nullopt, absent_ok};
    if (keys.empty()) {
        return PLATFORM_OK;
    }
    return key_store_make_import(user, keys, change.service_value.emplace());
}

control_json refuse_keys(const control_change_call& call, const std::string& user, const std::string& reason) {
    return audited_refusal(
        call.peer, call.name, user,
        control_answer(control_result::refused, text_format("user %s: %s", user.c_str(), reason.c_str())));
}

control_json import_keys(const control_change_call& call, const std::string& user, const std::string& text,
                         bool replaces) {
    std::vector<authorized_key> added;
    std::vector<authorized_key> keys;
    std::string refusal;
    bool has_record = false;
    if (!authorized_keys_read(text, added, refusal)) {
        return refuse_keys(call, user, refusal);
    }
    platform_status status = read_imported(user, keys, has_record);
    if (replaces) {
        keys.clear();
    }
    merge_keys(added, keys);
    if (status == PLATFORM_OK && !authorized_keys_are_distinct(keys, "key", {}, refusal)) {
        return refuse_keys(call, user, refusal);
    }
    datastore_change_request change;
    status = status == PLATFORM_OK ? change_to(user, keys, false, change) : status;
    return status == PLATFORM_OK ? control_commit(call, {change})
                                 : audited_refusal(call.peer, call.name, user, answer_of(user, status));
}

control_json delete_keys(const control_change_call& call, const std::string& user, const std::string& fingerprint,
                         bool absent_ok) {
    std::vector<authorized_key> keys;
    bool has_record = false;
    platform_status status = read_imported(user, keys, has_record);
    if (status == PLATFORM_OK && !has_record && !absent_ok) {
        status = DATASTORE_NO_SUCH_ITEM;
    }
    if (status == PLATFORM_OK && !fingerprint.empty()) {
        const auto found = find_key(keys, fingerprint);
        if (found == keys.end() && !absent_ok) {
            return audited_refusal(call.peer, call.name, user, no_such_key(user, fingerprint));
        }
        keys.erase(found, found == keys.end() ? found : found + 1);
    } else {
        keys.clear();
    }
    datastore_change_request change;
    status = status == PLATFORM_OK ? change_to(user, keys, absent_ok, change) : status;
    return status == PLATFORM_OK ? control_commit(call, {change})
                                 : audited_refusal(call.peer, call.name, user, answer_of(user, status));
}

}  // namespace

control_json control_call_key_list(const control_json& request, const control_peer& /*peer*/) {
    std::string user;
    if (request.contains("user")) {
        if (control_json problem = read_user(request, user); !problem.is_null()) {
            return problem;
        }
    }
    std::vector<key_store_entry> entries;
    if (const platform_status status = key_store_list(entries); status != PLATFORM_OK) {
        return unreadable_keys(status);
    }
    const bool is_fips_mode = control_is_fips_mode();
    control_json list = control_json::array();
    for (const key_store_entry& entry : entries) {
        for (const key_with_time& key : entry.record.keys) {
            if (user.empty() || user == entry.user) {
                list.push_back(key_json(entry.user, entry.record.origin, key, is_fips_mode));
            }
        }
    }
    return user.empty() || !list.empty() ? control_data_answer(std::move(list))
                                         : answer_of(user, DATASTORE_NO_SUCH_ITEM);
}

control_json control_call_key_export(const control_json& request, const control_peer& /*peer*/) {
    std::string user;
    std::string fingerprint;
    control_json problem = read_user(request, user);
    if (problem.is_null()) {
        problem = read_fingerprint(request, fingerprint);
    }
    if (!problem.is_null()) {
        return problem;
    }
    key_record record;
    if (const platform_status status = key_store_find(user, record); status != PLATFORM_OK) {
        return answer_of(user, status);
    }
    if (!fingerprint.empty()) {
        const auto found = find_key(record.keys, fingerprint);
        if (found == record.keys.end()) {
            return no_such_key(user, fingerprint);
        }
        record.keys = {*found};
    }
    control_json lines = control_json::array();
    for (const key_with_time& key : record.keys) {
        lines.push_back(authorized_key_line(key));
    }
    return control_data_answer(std::move(lines));
}

control_json control_call_key_import(const control_json& request, const control_peer& peer) {
    std::string user;
    control_json problem = read_user(request, user);
    if (!problem.is_null()) {
        return problem;
    }
    const std::string* text = control_text_member(request, "text");
    if (text == nullptr) {
        return control_wrong_member("text", "a string");
    }
    bool replaces = false;
    control_change_call call = {.name = "key import", .peer = peer};
    problem = control_flag_member(request, "replace", replaces);
    if (problem.is_null()) {
        problem = control_read_acceptance(request, call.accepts_lock_out);
    }
    if (!problem.is_null()) {
        return problem;
    }
    problem = check_permission(peer, user);
    if (problem.is_null()) {
        problem = check_existence(user);
    }
    return problem.is_null() ? import_keys(call, user, *text, replaces)
                             : audited_refusal(peer, call.name, user, std::move(problem));
}

control_json control_call_key_delete(const control_json& request, const control_peer& peer) {
    std::string user;
    std::string fingerprint;
    bool absent_ok = false;
    control_change_call call = {.name = "key delete", .peer = peer};
    control_json problem = read_user(request, user);
    if (problem.is_null()) {
        problem = read_fingerprint(request, fingerprint);
    }
    if (problem.is_null()) {
        problem = control_flag_member(request, "absent_ok", absent_ok);
    }
    if (problem.is_null()) {
        problem = control_read_acceptance(request, call.accepts_lock_out);
    }
    if (!problem.is_null()) {
        return problem;
    }
    problem = check_permission(peer, user);
    return problem.is_null() ? delete_keys(call, user, fingerprint, absent_ok)
                             : audited_refusal(peer, call.name, user, std::move(problem));
}
