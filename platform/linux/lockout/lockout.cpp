#include "linux/lockout/lockout.h"

#include <algorithm>
#include <iterator>

#include "common/text.h"
#include "platform/algorithms.h"
#include "user_keys/key_options.h"
#include "user_keys/public_key.h"

namespace {

using reason_list = std::vector<std::string>;

void check_server(const login_session& session, const login_change& change, reason_list& reasons) {
    if (change.before.has_server && !change.after.has_server) {
        reasons.push_back(text_format("this change removes the server of VRF %s on port %u, to which you are connected",
                                      session.vrf_name.c_str(), session.connection.destination_port));
    }
}

void check_lists(const login_session& session, const login_change& change, reason_list& reasons) {
    for (size_t i = 0; i < change.after.lists.size(); i++) {
        const login_list& before = change.before.lists[i];
        const login_list& after = change.after.lists[i];
        if (!change.after.has_server || rules_admit(after.rules, session.connection) ||
            !rules_admit(before.rules, session.connection)) {
            continue;
        }
        const bool is_new = before.name != after.name;
        reasons.push_back(text_format("list %s, which %s VRF %s, %s %s, from which you are logged in",
                                      after.name.c_str(), is_new ? "this change binds to" : "is bound to",
                                      session.vrf_name.c_str(), is_new ? "does not admit" : "would no longer admit",
                                      session.source.c_str()));
    }
}

/// A kind of algorithms in a server's file and in a session.
struct algorithm_check {
    const char* keyword;
    const char* name;
    algorithm_kind kind;
    std::string login_session::*members[2];  ///< the second may be null
};

constexpr algorithm_check algorithm_checks_of_file[] = {
    {"KexAlgorithms", "key exchange", algorithm_kind::kex, {&login_session::kex, nullptr}},
    {"HostKeyAlgorithms", "host-key algorithm", algorithm_kind::key, {&login_session::host_key, nullptr}},
    {"Ciphers", "cipher", algorithm_kind::cipher, {&login_session::in_cipher, &login_session::out_cipher}},
    {"MACs", "MAC", algorithm_kind::mac, {&login_session::in_mac, &login_session::out_mac}},
};

/// Finds the line that sets a keyword among the added ('+') or removed ('-') ones. Returns null, or its value.
const char* value_of_line(const std::vector<std::string>& lines, char mark, std::string_view keyword) {
    for (const std::string& line : lines) {
        const bool matches = line.size() > keyword.size() + 1 && line[0] == mark &&
                             std::string_view(line).substr(1).starts_with(keyword) && line[keyword.size() + 1] == ' ';
        if (matches) {
            return line.c_str() + keyword.size() + 2;
        }
    }
    return nullptr;
}

bool list_contains(std::string_view list, std::string_view name) {
    while (!list.empty()) {
        const std::string_view member = list.substr(0, list.find_first_of(", "));
        if (member == name) {
            return true;
        }
        list.remove_prefix(std::min(list.size(), member.size() + 1));
    }
    return false;
}

/// Ciphers that authenticate their packets have no MAC.
bool is_algorithm(std::string_view name) {
    return !name.empty() && name.find('<') == std::string_view::npos;
}

bool is_default(algorithm_kind kind, std::string_view name) {
    const algorithm_row* row = algorithm_named(kind, name);
    return row != nullptr && row->server_rank > 0;
}

bool is_approved_for_fips(algorithm_kind kind, std::string_view name) {
    const algorithm_row* row = algorithm_named(kind, name);
    return row != nullptr && (row->fips == algorithm_fips::approved || row->fips == algorithm_fips::offered);
}

/// Whether the server offers an algorithm now, but not with the changed lines of its file.
bool is_removed(const algorithm_check& check, const std::string& name, const std::vector<std::string>& lines) {
    const char* removed = value_of_line(lines, '-', check.keyword);
    const char* added = value_of_line(lines, '+', check.keyword);
    if ((removed == nullptr && added == nullptr) || (removed != nullptr && !list_contains(removed, name))) {
        return false;
    }
    return added != nullptr ? !list_contains(added, name) : !is_default(check.kind, name);
}

bool turns_fips_mode_on(const login_change& change) {
    return value_of_line(change.server_lines, '+', "NorvoSSHFipsMode") != nullptr &&
           value_of_line(change.server_lines, '-', "NorvoSSHFipsMode") == nullptr;
}

void check_algorithms(const login_session& session, const login_change& change, reason_list& reasons) {
    const bool turns_fips_on = turns_fips_mode_on(change);
    for (const algorithm_check& check : algorithm_checks_of_file) {
        for (const auto member : check.members) {
            const std::string name = member == nullptr ? std::string() : session.*member;
            if (!is_algorithm(name) || (member == check.members[1] && name == session.*check.members[0])) {
                continue;
            }
            if (turns_fips_on && !is_approved_for_fips(check.kind, name)) {
                reasons.push_back(
                    text_format("FIPS mode, which this change turns on, does not allow %s %s, which your "
                                "session negotiated",
                                check.name, name.c_str()));
            } else if (is_removed(check, name, change.server_lines)) {
                reasons.push_back(
                    text_format("the server of VRF %s would no longer offer %s %s, which your session "
                                "negotiated",
                                session.vrf_name.c_str(), check.name, name.c_str()));
            }
        }
    }
}

bool is_login_with_key(const login_session& session) {
    return session.method.ends_with("-pubkey");
}

/// The part of an authorized_keys line that begins with the type of the key.
std::string_view without_options(std::string_view line) {
    const size_t blank = key_options_size(line);
    const bool has_options = !public_key_type_is_known(line.substr(0, blank)) && blank < line.size();
    return has_options ? line.substr(blank + 1) : line;
}

/// Returns what a change does to a key, or null if it leaves the key as it is.
const char* change_of_key(const std::string& line, const std::vector<std::string>& after) {
    if (std::ranges::find(after, line) != after.end()) {
        return nullptr;
    }
    const bool only_options_differ = std::ranges::any_of(
        after, [&line](const std::string& other) { return without_options(other) == without_options(line); });
    return only_options_differ ? "changes the options of" : after.empty() ? "deletes" : "replaces";
}

void check_key(const login_session& session, const login_change& change, reason_list& reasons) {
    if (!is_login_with_key(session)) {
        return;
    }
    for (const std::string& line : change.before.keys) {
        if (const char* what = change_of_key(line, change.after.keys); what != nullptr) {
            reasons.push_back(
                text_format("this change %s the public key of %s, and you are logged in with a public key", what,
                            session.user.c_str()));
            return;
        }
    }
}

/// In FIPS mode the servers accept keys of some types only, wherever they are stored.
void check_key_type(const login_session& session, const login_change& change, reason_list& reasons) {
    constexpr std::string_view approved_types[] = {"RSA", "ECDSA"};
    if (is_login_with_key(session) && !session.key_type.empty() && turns_fips_mode_on(change) &&
        std::ranges::find(approved_types, session.key_type) == std::end(approved_types)) {
        reasons.push_back(
            text_format("FIPS mode, which this change turns on, does not allow keys of type %s, and you are "
                        "logged in with one",
                        session.key_type.c_str()));
    }
}

/// What is checked, in the order of a login.
constexpr void (*checks[])(const login_session& session, const login_change& change, reason_list& reasons) = {
    check_server, check_lists, check_algorithms, check_key_type, check_key,
};

}  // namespace

std::vector<std::string> lockout_reasons(const login_session& session, const login_change& change) {
    reason_list reasons;
    for (const auto check : checks) {
        check(session, change, reasons);
    }
    return reasons;
}
