/// Calls on users' public keys. Request members: `user`; for key_import also `text`, the text of the key; and for
/// key_delete also `absent_ok`, which is true if it is not an error that the user has no key.
#include <cerrno>
#include <vector>

#include "common/machine_user.h"
#include "common/text.h"
#include "linux/control/audit.h"
#include "linux/control/calls_internal.h"
#include "linux/control/change_calls.h"
#include "linux/control/lock_out.h"
#include "linux/control/service_json.h"
#include "linux/host/key_store_internal.h"
#include "user_keys/key_der.h"

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

/// Removes blank lines and lines that begin with '#', which a key file may contain. Exactly one line must be left.
bool only_line(std::string_view text, std::string_view& line) {
    size_t lines = 0;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const std::string_view next = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (next.find_first_not_of(" \t\r") != std::string_view::npos && next.front() != '#') {
            line = next;
            lines++;
        }
    }
    return lines == 1;
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
        case KEY_NOT_BASE64:
        case KEY_CUT_OFF:
        case KEY_TRAILING_BYTES:
        case KEY_OTHER_TYPE:
        case KEY_TYPES_DIFFER:
        case KEY_WRONG_EXPONENT:
        case KEY_WRONG_MODULUS:
        case KEY_TOO_SMALL:
        case KEY_TOO_LARGE:
            return control_answer(control_result::refused,
                                  text_format("user %s: %s", name, control_key_refusal(status).c_str()));
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

/// Returns KEY_OTHER_ORIGIN if the user has a configured key, which the calls on imported keys must not change, and
/// DATASTORE_NO_SUCH_ITEM if the user has no key, unless it may be absent.
platform_status check_origin(const std::string& user, bool may_be_absent) {
    key_record present;
    const platform_status status = key_store_find(user, present);
    if (status == PLATFORM_OK && present.origin != key_origin::exec_mode) {
        return KEY_OTHER_ORIGIN;
    }
    // A damaged key can be replaced and deleted.
    return status == EBADMSG || (status == DATASTORE_NO_SUCH_ITEM && may_be_absent) ? platform_status{PLATFORM_OK}
                                                                                    : status;
}

control_json entry_json(const key_store_entry& entry) {
    rsa_public_key key;
    const bool readable = key_der_read(entry.record.der, key) == PLATFORM_OK;
    return {{"user", entry.user},
            {"type", "ssh-rsa"},
            {"bits", entry.record.bits},
            {"origin", entry.record.origin == key_origin::exec_mode ? "exec" : "configuration"},
            {"since", text_utc_time(entry.record.time)},
            {"fingerprint", readable ? key_fingerprint(key) : std::string()},
            {"key", readable ? key_text_write(key) : std::string()}};
}

}  // namespace

control_json control_call_key_list(const control_json& /*request*/, const control_peer& /*peer*/) {
    std::vector<key_store_entry> entries;
    const platform_status status = key_store_list(entries);
    if (status != PLATFORM_OK) {
        return control_answer(control_result::failed,
                              text_format("cannot read the keys: %s (0x%x)", platform_status_text(status), status));
    }
    control_json list = control_json::array();
    for (const key_store_entry& entry : entries) {
        list.push_back(entry_json(entry));
    }
    return control_data_answer(std::move(list));
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
    problem = check_permission(peer, user);
    if (problem.is_null()) {
        problem = check_existence(user);
    }
    if (!problem.is_null()) {
        return audited_refusal(peer, "key import", user, std::move(problem));
    }
    std::string_view line;
    if (!only_line(*text, line)) {
        return control_answer(control_result::refused,
                              text_format("user %s: expected exactly one key on one line", user.c_str()));
    }
    std::string bytes;
    platform_status status = check_origin(user, true);
    if (status == PLATFORM_OK) {
        status = key_store_make_import(user, line, bytes);
    }
    return status == PLATFORM_OK
               ? control_commit({.name = "key import", .peer = peer, .accepts_lock_out = true},
                                {{key_store_import_path(user), std::nullopt, false, std::move(bytes)}})
               : audited_refusal(peer, "key import", user, answer_of(user, status));
}

control_json control_call_key_delete(const control_json& request, const control_peer& peer) {
    std::string user;
    control_json problem = read_user(request, user);
    if (!problem.is_null()) {
        return problem;
    }
    bool absent_ok = false;
    problem = control_flag_member(request, "absent_ok", absent_ok);
    if (!problem.is_null()) {
        return problem;
    }
    control_change_call call = {.name = "key delete", .peer = peer};
    problem = control_read_acceptance(request, call.accepts_lock_out);
    if (problem.is_null()) {
        problem = check_permission(peer, user);
    }
    if (!problem.is_null()) {
        return audited_refusal(peer, "key delete", user, std::move(problem));
    }
    const platform_status status = check_origin(user, absent_ok);
    return status == PLATFORM_OK ? control_commit(call, {{key_store_import_path(user), std::nullopt, absent_ok}})
                                 : audited_refusal(peer, "key delete", user, answer_of(user, status));
}
