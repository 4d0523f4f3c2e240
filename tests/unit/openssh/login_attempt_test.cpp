#include "openssh/reporter/login_attempt.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "golden.h"
#include "openssh/reporter/log_line.h"

using namespace openssh;

namespace {

const std::string attempts = "openssh/golden/login_attempts/";

/// Follows a line as it is in the log, with or without its place.
void follow(login_attempt& attempt, const std::string& written) {
    log_line line;
    if (parse_log_line(written, line)) {
        follow_attempt(attempt, line.text, !line.before_authentication);
        return;
    }
    bool before_authentication = false;
    const std::string_view message = plain_message(written, before_authentication);
    follow_attempt(attempt, message, !before_authentication);
}

std::string as_text(const login_attempt& attempt) {
    std::string text;
    const auto add = [&](const std::string& name, const std::string& value) {
        text += value.empty() ? "" : name + value + '\n';
    };
    add("user     ", attempt.user);
    add("methods  ", attempt.methods);
    add("accepted ", attempt.accepted);
    add("refused  ", std::to_string(attempt.refused));
    add("reason   ", attempt.accepted[0] == '\0' ? reason_of(attempt).text : "");
    add("detail   ", attempt.detail);
    add("key      ", attempt.key);
    return text;
}

login_attempt attempt_of(std::initializer_list<std::string> lines) {
    login_attempt attempt;
    for (const std::string& line : lines) {
        follow(attempt, line);
    }
    return attempt;
}

std::string reason_in(std::initializer_list<std::string> lines) {
    return reason_of(attempt_of(lines)).text;
}

}  // namespace

TEST(login_attempt, tells_the_reason_from_what_sshd_logs) {
    std::ifstream file(std::string(TEST_SOURCE_DIR) + "/" + attempts + "lines");
    ASSERT_TRUE(file);
    std::string result;
    login_attempt attempt;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("== ")) {
            result += result.empty() ? "" : as_text(attempt);
            result += line + '\n';
            attempt = {};
        } else {
            follow(attempt, line);
        }
    }
    expect_golden(attempts + "reasons", result + as_text(attempt));
}

TEST(login_attempt, believes_only_the_monitor_that_a_user_was_accepted) {
    const std::string accepted = "Accepted password for root from 10.0.0.1 port 5 ssh2";
    EXPECT_STREQ(attempt_of({accepted + " [preauth]"}).accepted, "");
    EXPECT_STREQ(attempt_of({accepted}).accepted, "password");
}

TEST(login_attempt, takes_names_that_imitate_a_message_as_names) {
    const login_attempt failed =
        attempt_of({"Failed password for invalid user a from 6.6.6.6 port 1 ssh2: RSA x from 10.0.0.1 port 5 ssh2"});
    EXPECT_STREQ(failed.user, "a from 6.6.6.6 port 1 ssh2: RSA x");
    EXPECT_STREQ(failed.key, "");
    const login_attempt refused =
        attempt_of({"User a not allowed because b from 10.0.0.1 not allowed because listed in DenyUsers"});
    EXPECT_STREQ(refused.user, "a not allowed because b");
    EXPECT_STREQ(refused.cause, "user not allowed: listed in DenyUsers");
    const login_attempt gone = attempt_of({"Connection closed by invalid user a port 1 10.0.0.1 port 5 [preauth]"});
    EXPECT_STREQ(gone.user, "a port 1");
}

TEST(login_attempt, keeps_the_cause_that_holds_for_all_tries) {
    EXPECT_EQ(
        reason_in(
            {"Invalid user x from 10.0.0.1 port 5", "Failed password for invalid user x from 10.0.0.1 port 5 ssh2",
             "error: maximum authentication attempts exceeded for invalid user x from 10.0.0.1 port 5 ssh2 [preauth]"}),
        "attempts exceeded (unknown user)");
}

TEST(login_attempt, tells_what_pam_says_of_a_password) {
    const std::string failed = "Failed password for x from 10.0.0.1 port 5 ssh2";
    const std::string reason = "debug1: a.c:f():1 (pid=5): PAM: password authentication failed for x: ";
    EXPECT_EQ(reason_in({reason + "Authentication failure", failed}), "wrong password");
    EXPECT_EQ(reason_in({reason + "Permission denied", failed}), "wrong password");
    EXPECT_EQ(reason_in({reason + "Module is unknown", failed}), "refused by PAM: Module is unknown");
    EXPECT_EQ(reason_in({reason + "Module is unknown", failed, failed}), "wrong password");
    EXPECT_EQ(reason_in({"error: PAM: Authentication token expired for illegal user x from 10.0.0.1",
                         "Failed keyboard-interactive/pam for x from 10.0.0.1 port 5 ssh2"}),
              "refused by PAM: Authentication token expired");
}

TEST(login_attempt, names_each_method_once) {
    const std::string key = "Failed publickey for x from 10.0.0.1 port 5 ssh2: RSA SHA256:a";
    const login_attempt attempt = attempt_of({"Failed none for x from 10.0.0.1 port 5 ssh2", key, key,
                                              "Failed password for x from 10.0.0.1 port 5 ssh2", key});
    EXPECT_STREQ(attempt.methods, "publickey,password");
    EXPECT_EQ(attempt.refused, 4U);
    EXPECT_STREQ(attempt.key, "RSA SHA256:a");
}

TEST(login_attempt, tells_why_keys_were_not_read_or_not_accepted) {
    const std::string failed = "Failed publickey for x from 10.0.0.1 port 5 ssh2: RSA SHA256:a";
    EXPECT_EQ(reason_in({"Authentication key RSA SHA256:a revoked by file /etc/revoked", failed}), "key revoked");
    EXPECT_EQ(reason_in({"ROOT LOGIN REFUSED FROM 10.0.0.1 port 5", failed}), "root may not log in");
    EXPECT_EQ(reason_in({"Timeout before authentication for 10.0.0.1 port 5"}), "login grace time over");
}

TEST(login_attempt, is_none_without_a_user_when_the_client_leaves) {
    EXPECT_EQ(reason_in({"Connection closed by 10.0.0.1 port 5 [preauth]"}), "");
    EXPECT_EQ(reason_in({"debug1: x", ""}), "");
}

TEST(login_attempt, truncates_what_is_too_long) {
    const std::string name(5000, 'x');
    const login_attempt attempt =
        attempt_of({"Invalid user " + name + " from 10.0.0.1 port 5",
                    "Unable to negotiate with 10.0.0.1 port 5: no matching cipher found. Their offer: " + name});
    EXPECT_EQ(std::string(attempt.user), std::string(sizeof(attempt.user) - 1, 'x'));
    EXPECT_EQ(std::string(attempt.detail).size(), sizeof(attempt.detail) - 1);
    EXPECT_STREQ(attempt.ending, "no common cipher");
}

TEST(login_attempt, survives_any_text) {
    for (const char* start :
         {"Failed ", "Accepted ", "Invalid user ", "User ", "PAM: ", "PAM: do_pam_account ",
          "Unable to negotiate with ", "banner exchange: ", "Connection closed by ", "Authentication key ",
          "userauth_pubkey: signature algorithm ", "Disconnecting ", "a:account):"}) {
        for (const char* rest : {"", " ", " for ", ": ", " from ", "x for ", ". Their offer: ", " port ", "("}) {
            login_attempt attempt;
            follow_attempt(attempt, std::string(start) + rest, true);
            as_text(attempt);
        }
    }
}
