#include "openssh/reporter/fact_rows.h"

#include <gtest/gtest.h>

#include <fstream>

#include "golden.h"
#include "session_test.h"

using namespace openssh;

namespace {

const std::string logs = "openssh/golden/session_logs/";

/// The facts known at the end of a session's log, or before the first line that contains `end`.
std::string facts_of(const std::string& name, session_kind kind, const std::string& end = "\n") {
    std::ifstream log(std::string(TEST_SOURCE_DIR) + "/" + logs + name + ".log");
    session_facts facts;
    facts.kind = kind;
    unsigned long first = 0;
    for (std::string written; std::getline(log, written) && written.find(end) == std::string::npos;) {
        log_line line;
        EXPECT_TRUE(parse_log_line(written, line)) << written;
        first = first == 0 ? line.pid : first;
        learn_from_line(facts, line,
                        {.from_monitor = line.pid == first || line.before_authentication,
                         .now = 500,
                         .bytes = {.sent = 10, .received = 20, .known = 1},
                         .own_terminal = 3});
    }
    EXPECT_NE(first, 0UL);
    return openssh_test::as_text(make_snapshot(facts, 560, {.sent = 1010, .received = 20, .known = 1}));
}

log_line line_of(std::string_view function, std::string_view text, bool before_authentication = false) {
    return {.severity = "debug1",
            .file = "x.c",
            .function = function,
            .pid = 1,
            .text = text,
            .before_authentication = before_authentication};
}

}  // namespace

TEST(fact_rows, cover_a_server_session_with_a_terminal_and_files) {
    expect_golden(logs + "server_key_terminal_sftp.facts",
                  facts_of("server_key_terminal_sftp", session_kind::incoming, "channel 1: free"));
}

TEST(fact_rows, cover_each_authentication_method) {
    expect_golden(logs + "server_password.facts", facts_of("server_password", session_kind::incoming));
    expect_golden(logs + "server_keyboard_interactive.facts",
                  facts_of("server_keyboard_interactive", session_kind::incoming));
    expect_golden(logs + "server_root.facts", facts_of("server_root", session_kind::incoming));
}

TEST(fact_rows, count_rekeys) {
    expect_golden(logs + "server_rekeys.facts", facts_of("server_rekeys", session_kind::incoming));
    expect_golden(logs + "client_key_rekeys.facts",
                  facts_of("client_key_rekeys", session_kind::outgoing, "channel 0: free"));
}

TEST(fact_rows, cover_a_session_before_authentication) {
    expect_golden(logs + "server_refused.facts", facts_of("server_refused", session_kind::incoming));
}

TEST(fact_rows, cover_client_sessions) {
    expect_golden(logs + "client_password_terminal.facts",
                  facts_of("client_password_terminal", session_kind::outgoing, "channel 0: free"));
    expect_golden(logs + "client_forwarding.facts", facts_of("client_forwarding", session_kind::outgoing));
}

TEST(fact_rows, an_unauthenticated_process_cannot_report_authentication) {
    session_facts facts;
    const auto let_in = line_of("monitor_child_preauth", "user root authenticated by privileged process",
                                /*before_authentication=*/true);
    EXPECT_FALSE(learn_from_line(facts, let_in, {}));
    EXPECT_FALSE(learn_from_line(facts, line_of("channel_new", "channel 0: new session [x] (y)", true), {}));
    EXPECT_FALSE(learn_from_line(facts, line_of("sshpam_init", "PAM: initializing for \"root\"", true), {}));
    EXPECT_EQ(facts.state, session_negotiating);
    EXPECT_EQ(facts.user[0], '\0');
}

TEST(fact_rows, a_users_process_cannot_report_its_user) {
    session_facts facts;
    EXPECT_FALSE(learn_from_line(facts,
                                 line_of("monitor_child_preauth", "user root authenticated by privileged process"),
                                 {.from_monitor = false}));
    EXPECT_TRUE(
        learn_from_line(facts, line_of("channel_new", "channel 0: new session [x] (y)"), {.from_monitor = false}));
    EXPECT_EQ(facts.user[0], '\0');
}

TEST(fact_rows, a_method_counts_once_the_user_is_authenticated) {
    session_facts facts;
    learn_from_line(facts, line_of("mm_answer_pam_respond", "mm_answer_pam_respond"), {});
    learn_from_line(facts, line_of("mm_answer_authpassword", "sending result 0"), {});
    EXPECT_STREQ(facts.method, "");
    learn_from_line(facts, line_of("mm_answer_keyverify", "publickey RSA signature using rsa-sha2-512 unverified"), {});
    EXPECT_STREQ(facts.attempt, "key-intr");
    learn_from_line(facts, line_of("mm_answer_keyverify", "publickey RSA-CERT signature verified"), {});
    learn_from_line(facts, line_of("monitor_child_preauth", "user a b authenticated by privileged process"), {});
    EXPECT_STREQ(facts.method, "rsa-pubkey");
    EXPECT_STREQ(facts.user, "a b");
}

TEST(fact_rows, a_method_without_a_name_stays_empty) {
    for (const auto& [function, text] :
         {std::pair{"mm_answer_gss_userok", "sending result 1"},
          std::pair{"mm_answer_keyverify", "hostbased RSA signature using x verified"}}) {
        session_facts facts;
        learn_from_line(facts, line_of("mm_answer_pam_respond", ""), {});
        learn_from_line(facts, line_of(function, text), {});
        learn_from_line(facts, line_of("monitor_child_preauth", "user a authenticated by privileged process"), {});
        EXPECT_STREQ(facts.method, "") << function;
        EXPECT_EQ(facts.state, session_established);
    }
}

TEST(fact_rows, the_key_of_a_login_is_the_accepted_one) {
    session_facts facts;
    const auto accepted = [](std::string_view text, bool before_authentication = false) {
        return line_of("auth_log", text, before_authentication);
    };
    const std::string_view good =
        "Accepted publickey for operator from 10.0.0.7 port 4711 ssh2: ED25519 SHA256:uNiVztksCsDhcc0u9e8BrqXdIPVTCPUQ";
    learn_from_line(facts, accepted(good, true), {});
    learn_from_line(facts, accepted(good), {.from_monitor = false});
    learn_from_line(facts, accepted("Failed publickey for operator from 10.0.0.7 port 4711 ssh2: RSA SHA256:x"), {});
    learn_from_line(facts, accepted("Accepted password for operator from 10.0.0.7 port 4711 ssh2"), {});
    EXPECT_STREQ(facts.login.key_type, "");
    EXPECT_TRUE(learn_from_line(facts, accepted(good), {}));
    EXPECT_STREQ(facts.login.key_type, "ED25519");
    EXPECT_STREQ(facts.login.key_fingerprint, "SHA256:uNiVztksCsDhcc0u9e8BrqXdIPVTCPUQ");
    learn_from_line(facts,
                    accepted("Accepted publickey for operator from ::1 port 1 ssh2: RSA-CERT SHA256:cert ID a b "
                             "(serial 0) CA RSA SHA256:ca"),
                    {});
    EXPECT_STREQ(facts.login.key_type, "RSA-CERT");
    EXPECT_STREQ(facts.login.key_fingerprint, "SHA256:cert");
    learn_from_line(facts, line_of("monitor_child_preauth", "user a authenticated by privileged process"), {.now = 77});
    EXPECT_EQ(facts.login.time, 77U);
}

TEST(fact_rows, channels_beyond_the_last_slot_are_omitted) {
    session_facts facts;
    for (int id = 0; id < 40; ++id) {
        const std::string text = "channel " + std::to_string(id) + ": new session [x] (y)";
        EXPECT_TRUE(learn_from_line(facts, line_of("channel_new", text), {}));
    }
    EXPECT_EQ(make_snapshot(facts, 0, {}).open_channels, most_channels);
    learn_from_line(facts, line_of("channel_free", "channel 3: free: server-session, nchannels 2"), {});
    learn_from_line(facts, line_of("channel_free", "channel 39: free: server-session, nchannels 2"), {});
    EXPECT_EQ(make_snapshot(facts, 0, {}).open_channels, most_channels - 1);
    learn_from_line(facts, line_of("channel_new", "channel 40: new direct-tcpip [x] (y)"), {});
    EXPECT_EQ(facts.channels[3].id, 40U);
    EXPECT_EQ(facts.channels[3].type, connection_forwarding);
}

TEST(fact_rows, listeners_and_windows_are_not_channels) {
    session_facts facts;
    for (const char* type :
         {"port-listener", "x11-listener", "mux-listener", "mux-control", "forwarded-tcpip-listener"}) {
        const std::string text = std::string("channel 0: new ") + type + " [x] (y)";
        learn_from_line(facts, line_of("channel_new", text), {});
    }
    EXPECT_EQ(make_snapshot(facts, 0, {}).open_channels, 0U);
}

TEST(fact_rows, texts_are_truncated_to_their_fields) {
    session_facts facts;
    const std::string name(500, 'x');
    learn_from_line(facts, line_of("choose_kex", "kex: algorithm: " + name), {});
    learn_from_line(facts, line_of("monitor_child_preauth", "user " + name + " authenticated by privileged process"),
                    {});
    EXPECT_EQ(std::string(facts.algorithms.kex), name.substr(0, 99));
    EXPECT_EQ(std::string(facts.user), name.substr(0, 63));
}

TEST(fact_rows, bytes_are_counted_when_keys_change) {
    EXPECT_TRUE(counts_bytes(line_of("ssh_set_newkeys", "mode 1")));
    EXPECT_FALSE(counts_bytes(line_of("choose_kex", "kex: algorithm: x")));
}
