#include "openssh/reporter/login_attempt.h"

#include <algorithm>

#include "openssh/reporter/session_facts.h"

namespace openssh {

namespace {

constexpr std::string_view mark_before_authentication = " [preauth]";
constexpr std::string_view severities[] = {"error: ", "fatal: ", "debug1: ", "debug2: ", "debug3: "};

/// A message, taken apart from its ends: a client can name a user who is called like the rest of the message.
struct message_reader {
    login_attempt& attempt;
    std::string_view rest;  ///< behind the row's start
    bool from_monitor;
};

struct message_row {
    std::string_view start;
    bool (*learn)(message_reader& message);
};

std::string_view text_of(const char* field) {
    return field;
}

/// What is behind the last occurrence of `mark`; empty if there is none.
std::string_view behind_last(std::string_view text, std::string_view mark) {
    const size_t place = text.rfind(mark);
    return place == std::string_view::npos ? std::string_view() : text.substr(place + mark.size());
}

std::string_view before_last(std::string_view text, std::string_view mark) {
    return text.substr(0, text.rfind(mark));
}

bool take_start(std::string_view& text, std::string_view start) {
    if (!text.starts_with(start)) {
        return false;
    }
    text.remove_prefix(start.size());
    return true;
}

/// Stores the concatenated texts.
template <size_t size, size_t count>
void set_joined(char (&field)[size], const std::string_view (&texts)[count]) {
    size_t length = 0;
    for (const std::string_view text : texts) {
        length += text.copy(field + length, size - 1 - length);
    }
    field[length] = '\0';
}

void set_user(login_attempt& attempt, std::string_view name) {
    if (!name.empty()) {
        set_field(attempt.user, name);
    }
}

/// A cause that holds whatever the client tries.
void set_final_cause(login_attempt& attempt, std::string_view first, std::string_view second = {},
                     std::string_view third = {}) {
    if (!attempt.is_cause_final) {
        set_joined(attempt.cause, {first, second, third});
        attempt.is_cause_final = true;
    }
}

bool has_method(std::string_view methods, std::string_view method) {
    for (size_t begin = 0; begin < methods.size();) {
        const std::string_view one = methods.substr(begin, methods.find(',', begin) - begin);
        if (one == method) {
            return true;
        }
        begin += one.size() + 1;
    }
    return false;
}

void add_method(login_attempt& attempt, std::string_view method) {
    const std::string_view before = attempt.methods;
    if (before.empty()) {
        set_field(attempt.methods, method);
    } else if (!has_method(before, method) && before.size() + 1 + method.size() < sizeof(attempt.methods)) {
        char joined[sizeof(attempt.methods)];
        set_joined(joined, {before, ",", method});
        set_field(attempt.methods, joined);
    }
}

std::string_view usual_cause(std::string_view method) {
    if (method == "publickey") {
        return "key not accepted";
    }
    if (method == "password") {
        return "wrong password";
    }
    return method == "keyboard-interactive" ? "wrong answer" : "refused";
}

void refuse_try(login_attempt& attempt, std::string_view method) {
    ++attempt.refused;
    add_method(attempt, method);
    if (!attempt.is_cause_final) {
        set_field(attempt.cause, attempt.next_cause[0] != '\0' ? text_of(attempt.next_cause) : usual_cause(method));
    }
    set_field(attempt.next_cause, "");
}

/// "publickey for invalid user NAME from ADDRESS port PORT ssh2: ED25519 SHA256:...". Returns the method, and stores user
/// and key. Before a method's first "/" is its name: "keyboard-interactive/pam".
std::string_view learn_decision(message_reader& message) {
    const std::string_view method = message.rest.substr(0, message.rest.find(' '));
    std::string_view name = message.rest.substr(method.size());
    if (!take_start(name, " for ")) {
        return {};
    }
    take_start(name, "invalid user ");
    set_user(message.attempt, before_last(name, " from "));
    const std::string_view key = behind_last(behind_last(name, " from "), " ssh2: ");
    if (!key.empty()) {
        set_field(message.attempt.key, key);
    }
    return method.substr(0, method.find('/'));
}

bool learn_failed(message_reader& message) {
    const std::string_view method = learn_decision(message);
    // Clients ask with this method which others there are.
    if (!method.empty() && method != "none") {
        refuse_try(message.attempt, method);
    }
    return true;
}

bool learn_accepted(message_reader& message) {
    if (message.from_monitor) {
        set_field(message.attempt.key, "");
        set_field(message.attempt.accepted, learn_decision(message));
    }
    return message.from_monitor;
}

bool learn_unknown_user(message_reader& message) {
    set_user(message.attempt, before_last(message.rest, " from "));
    set_final_cause(message.attempt, "unknown user");
    return true;
}

/// "NAME from HOST not allowed because REASON", or without the host.
bool learn_user_not_allowed(message_reader& message) {
    constexpr std::string_view mark = " not allowed because ";
    const std::string_view why = behind_last(message.rest, mark);
    if (why.empty()) {
        return false;
    }
    if (message.attempt.user[0] == '\0') {
        set_user(message.attempt, before_last(before_last(message.rest, mark), " from "));
    }
    set_final_cause(message.attempt, "user not allowed: ", why);
    return true;
}

bool learn_root_refused(message_reader& message) {
    set_final_cause(message.attempt, "root may not log in");
    return true;
}

/// What PAM says of a password that is simply wrong, the second through a module that stands for a whole service.
bool says_more_than_wrong(std::string_view why) {
    return !why.empty() && why != "Authentication failure" && why != "Permission denied";
}

/// "operator: REASON", after a password.
bool learn_password_reason(message_reader& message) {
    const std::string_view why = behind_last(message.rest, ": ");
    if (says_more_than_wrong(why)) {
        set_joined(message.attempt.next_cause, {"refused by PAM: ", why});
    }
    return true;
}

/// "REASON for illegal user NAME from HOST", after an answer. Messages that begin with a small letter are others.
bool learn_answer_reason(message_reader& message) {
    const size_t end = message.rest.find(" for ");
    if (end == std::string_view::npos || message.rest.front() < 'A' || message.rest.front() > 'Z') {
        return false;
    }
    const std::string_view why = message.rest.substr(0, end);
    if (says_more_than_wrong(why)) {
        set_joined(message.attempt.next_cause, {"refused by PAM: ", why});
    }
    return true;
}

/// "NAME\"": before anything is tried.
bool learn_claimed_name(message_reader& message) {
    if (message.attempt.user[0] == '\0') {
        set_user(message.attempt, before_last(message.rest, "\""));
    }
    return true;
}

/// "pam_unix(norvosshd:account): account NAME has expired": the words of a module, which get lost on the way to sshd.
bool learn_module_message(login_attempt& attempt, std::string_view message) {
    const size_t end = message.find(' ');
    if (end == std::string_view::npos || !message.substr(0, end).ends_with(":account):")) {
        return false;
    }
    set_field(attempt.detail, message.substr(end + 1));
    return true;
}

/// "pam_acct_mgmt = 0 (Success)".
bool learn_account(message_reader& message) {
    std::string_view result = message.rest;
    if (!take_start(result, "pam_acct_mgmt = ") || result.starts_with("0 ") || !result.ends_with(')')) {
        return false;
    }
    result.remove_suffix(1);
    const std::string_view why = behind_last(result, " (");
    set_final_cause(message.attempt, "account refused by PAM", says_more_than_wrong(why) ? ": " : "",
                    says_more_than_wrong(why) ? why : "");
    return true;
}

bool learn_account_refused(message_reader& message) {
    set_final_cause(message.attempt, "account refused by PAM");
    return true;
}

/// Why a file with keys was not read.
bool learn_file_refused(message_reader& message) {
    set_field(message.attempt.next_cause, message.rest);
    return true;
}

bool learn_key_revoked(message_reader& message) {
    if (message.rest.find(" revoked by file ") == std::string_view::npos) {
        return false;
    }
    set_field(message.attempt.next_cause, "key revoked");
    return true;
}

/// The process before the login refuses such a key by itself.
bool learn_key_algorithm(message_reader& message) {
    constexpr std::string_view mark = " not in PubkeyAcceptedAlgorithms";
    if (!message.rest.ends_with(mark)) {
        return false;
    }
    set_joined(message.attempt.next_cause, {"key algorithm not allowed: ", before_last(message.rest, mark)});
    refuse_try(message.attempt, "publickey");
    return true;
}

bool learn_too_many(message_reader& message) {
    set_field(message.attempt.ending, "attempts exceeded");
    return true;
}

bool learn_disconnecting(message_reader& message) {
    return message.rest.ends_with(": Too many authentication failures") && learn_too_many(message);
}

bool learn_timeout(message_reader& message) {
    set_field(message.attempt.ending, "login grace time over");
    return true;
}

struct shortage_row {
    std::string_view logged;
    std::string_view reason;
};
constexpr shortage_row shortages[] = {
    {"no matching key exchange method found", "no common key exchange algorithm"},
    {"no matching host key type found", "no common host key algorithm"},
    {"no matching cipher found", "no common cipher"},
    {"no matching MAC found", "no common MAC"},
    {"no matching compression method found", "no common compression method"},
};

/// "ADDRESS port PORT: no matching cipher found. Their offer: aes128-ctr".
bool learn_no_algorithm(message_reader& message) {
    constexpr std::string_view mark = ". Their offer: ";
    const size_t offer = message.rest.find(mark);
    const std::string_view what = behind_last(message.rest.substr(0, offer), ": ");
    for (const shortage_row& row : shortages) {
        if (what == row.logged && offer != std::string_view::npos) {
            set_field(message.attempt.ending, row.reason);
            set_joined(message.attempt.detail, {"the client offers ", message.rest.substr(offer + mark.size())});
            return true;
        }
    }
    return false;
}

/// "Connection from ADDRESS port PORT: invalid format".
bool learn_wrong_protocol(message_reader& message) {
    const std::string_view why = behind_last(message.rest, ": ");
    set_joined(message.attempt.ending, {"not an SSH client", why.empty() ? "" : ": ", why});
    return true;
}

/// "authenticating user NAME ADDRESS port PORT": also of a client that has tried nothing.
bool learn_end(message_reader& message) {
    std::string_view name = message.rest;
    if (!take_start(name, "authenticating user ") && !take_start(name, "invalid user ")) {
        return false;
    }
    if (message.attempt.user[0] == '\0') {
        set_user(message.attempt, before_last(before_last(name, " port "), " "));
    }
    return true;
}

constexpr message_row message_rows[] = {
    {"Accepted ", learn_accepted},
    {"Failed ", learn_failed},
    {"Invalid user ", learn_unknown_user},
    {"User ", learn_user_not_allowed},
    {"ROOT LOGIN REFUSED FROM ", learn_root_refused},
    {"PAM: password authentication failed for ", learn_password_reason},
    {"PAM: do_pam_account ", learn_account},
    {"PAM: initializing for \"", learn_claimed_name},
    {"PAM: ", learn_answer_reason},
    {"Access denied for user ", learn_account_refused},
    {"Authentication refused: ", learn_file_refused},
    {"Authentication key ", learn_key_revoked},
    {"userauth_pubkey: signature algorithm ", learn_key_algorithm},
    {"maximum authentication attempts exceeded for ", learn_too_many},
    {"Disconnecting ", learn_disconnecting},
    {"Timeout before authentication for ", learn_timeout},
    {"Unable to negotiate with ", learn_no_algorithm},
    {"banner exchange: ", learn_wrong_protocol},
    {"Connection closed by ", learn_end},
    {"Connection reset by ", learn_end},
    {"Disconnected from ", learn_end},
};

}  // namespace

bool follow_attempt(login_attempt& attempt, std::string_view message, bool from_monitor) {
    for (const message_row& row : message_rows) {
        if (message.starts_with(row.start)) {
            message_reader reader{attempt, message.substr(row.start.size()), from_monitor};
            return row.learn(reader);
        }
    }
    return from_monitor && learn_module_message(attempt, message);
}

failure_reason reason_of(const login_attempt& attempt) {
    failure_reason reason;
    const std::string_view cause = attempt.cause;
    const std::string_view ending = attempt.ending;
    if (!ending.empty() && !cause.empty()) {
        set_joined(reason.text, {ending, " (", cause, ")"});
    } else if (!ending.empty() || !cause.empty()) {
        set_joined(reason.text, {ending, cause});
    } else if (attempt.user[0] != '\0') {
        set_field(reason.text, "the client tried no key and no password");
    }
    return reason;
}

std::string_view plain_message(std::string_view written, bool& before_authentication) {
    for (const std::string_view severity : severities) {
        if (take_start(written, severity)) {
            break;
        }
    }
    while (!written.empty() && (written.back() == '\n' || written.back() == '\r')) {
        written.remove_suffix(1);
    }
    before_authentication = written.ends_with(mark_before_authentication);
    if (before_authentication) {
        written.remove_suffix(mark_before_authentication.size());
    }
    return written;
}

}  // namespace openssh
