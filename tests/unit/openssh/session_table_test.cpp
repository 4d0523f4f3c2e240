#include "openssh/sessions/session_table.h"

#include <gtest/gtest.h>

#include "session_test.h"

using namespace openssh;
using namespace openssh_test;

namespace {

constexpr const char* kex_line =
    "debug1: kex.c:choose_kex():929 (pid=352): kex: algorithm: ecdh-sha2-nistp256 [preauth]";
constexpr const char* let_in_line =
    "debug1: monitor.c:monitor_child_preauth():370 (pid=351): user operator authenticated by privileged process";
constexpr const char* channel_line =
    "debug1: channels.c:channel_new():503 (pid=357): channel 0: new session [server-session] (inactive timeout: 0)";
constexpr const char* client_line =
    "debug1: sshconnect.c:ssh_login():1585 (pid=539): Authenticating to r:22 as 'operator'";
constexpr report_sender root_monitor = {.pid = 351, .user = 0};
constexpr report_sender users_process = {.pid = 357, .user = 1001};

class session_table_of_a_server : public testing::Test {
  protected:
    void SetUp() override {
        start_process(351, server_program);
        processes()[351].peer = "10.0.0.7";
        start_process(357, server_program, 351);
    }

    pid_t take(const report_sender& sender, std::string_view line, uint64_t start_time = 0) {
        return take_report(table_, sender, report_of(line, start_time));
    }

    session_facts& facts(pid_t pid = 351) { return table_.sessions.at(pid).facts; }

    session_table table_ = make_table();
};

class session_table_of_a_client : public session_table_of_a_server {
  protected:
    void SetUp() override { start_client(539); }

    static void start_client(pid_t pid) { start_process(pid, client_program, 1, 0, client_name); }
};

}  // namespace

TEST_F(session_table_of_a_server, a_session_begins_with_the_monitors_first_report) {
    EXPECT_EQ(take(root_monitor, kex_line), 351);
    EXPECT_EQ(facts().session_id, 1U);
    EXPECT_EQ(facts().start_time, 3510U);
    EXPECT_STREQ(facts().kex, "ecdh-sha2-nistp256");
    EXPECT_STREQ(facts().host, "10.0.0.7");
    EXPECT_EQ(facts().session_pid, 0);
    EXPECT_TRUE(table_.sessions.at(351).changed);
}

TEST_F(session_table_of_a_server, reports_of_a_users_process_belong_to_its_monitors_session) {
    take(root_monitor, let_in_line);
    EXPECT_EQ(facts().session_pid, 0);
    EXPECT_EQ(take(users_process, channel_line), 351);
    EXPECT_EQ(facts().channels[0].state, channel_opened);
    EXPECT_EQ(facts().session_pid, 357);
    EXPECT_EQ(table_.sessions.size(), 1U);
}

TEST_F(session_table_of_a_server, the_monitor_itself_runs_roots_session) {
    take(root_monitor, let_in_line);
    take(root_monitor, channel_line);
    EXPECT_EQ(facts().session_pid, 351);
}

TEST_F(session_table_of_a_server, a_child_of_a_monitor_has_no_session_of_its_own) {
    start_process(360, server_program, 351);
    take(root_monitor, let_in_line);
    EXPECT_EQ(take({.pid = 360, .user = 0}, kex_line), 351);
    EXPECT_EQ(table_.sessions.size(), 1U);
}

TEST_F(session_table_of_a_server, an_ordinary_user_has_no_monitor) {
    EXPECT_EQ(take({.pid = 351, .user = 1001}, kex_line), 0);
    EXPECT_EQ(take(users_process, channel_line), 0);
    EXPECT_TRUE(table_.sessions.empty());
}

TEST_F(session_table_of_a_server, a_users_process_below_another_users_does_not_belong_to_the_session) {
    take(root_monitor, let_in_line);
    start_process(400, server_program, 357);
    EXPECT_EQ(take({.pid = 400, .user = 1001}, channel_line), 0);
    start_process(401, "/bin/sh", 351);
    EXPECT_EQ(take({.pid = 401, .user = 1001}, channel_line), 0);
    EXPECT_EQ(facts().channels[0].state, channel_unused);
}

TEST_F(session_table_of_a_server, other_programs_are_ignored) {
    start_process(500, "/usr/bin/python3");
    EXPECT_EQ(take({.pid = 500, .user = 0}, kex_line), 0);
    EXPECT_EQ(take({.pid = 501, .user = 0}, kex_line), 0) << "no such process";
    start_process(502, client_program, 1, 0, "ssh");
    EXPECT_EQ(take({.pid = 502, .user = 0}, client_line), 0) << "not the router's client";
    EXPECT_TRUE(table_.sessions.empty());
}

TEST_F(session_table_of_a_server, a_report_of_the_previous_owner_of_a_process_id_is_dropped) {
    EXPECT_EQ(take(root_monitor, kex_line, 3509), 0);
    EXPECT_TRUE(table_.sessions.empty());
    EXPECT_EQ(take(root_monitor, kex_line, 3510), 351);
}

TEST_F(session_table_of_a_server, a_reused_process_id_inherits_no_facts) {
    take(root_monitor, let_in_line);
    end_process(351);
    start_process(351, server_program, 1, 9999);
    EXPECT_EQ(take(root_monitor, kex_line), 351);
    EXPECT_STREQ(facts().user, "");
    EXPECT_EQ(facts().state, session_negotiating);
    EXPECT_EQ(facts().session_id, 2U);
    EXPECT_EQ(facts().start_time, 9999U);
}

TEST_F(session_table_of_a_server, a_dead_monitor_has_no_children) {
    take(root_monitor, let_in_line);
    close(processes()[351].writing_end);
    EXPECT_FALSE(is_alive(table_.sessions.at(351)));
    EXPECT_EQ(take(users_process, channel_line), 0);
}

TEST_F(session_table_of_a_server, malformed_reports_change_nothing) {
    const std::string whole = report_of(kex_line);
    for (size_t size = 0; size < whole.size() - 60; ++size) {
        EXPECT_EQ(take_report(table_, root_monitor, whole.substr(0, size)), 0) << size;
    }
    std::string other = whole;
    other[0] = 'x';
    EXPECT_EQ(take_report(table_, root_monitor, other), 0) << "another format";
    EXPECT_EQ(take_report(table_, root_monitor, whole + '\n'), 0) << "a control character";
    EXPECT_EQ(take_report(table_, root_monitor, whole + std::string(longest_reported_line, 'x')), 0) << "too long";
    EXPECT_EQ(take(root_monitor, "debug1: sshd.c:main():1 (pid=351): of no interest"), 0);
    for (const auto& [pid, session] : table_.sessions) {
        EXPECT_FALSE(session.changed);
    }
}

TEST_F(session_table_of_a_server, is_limited) {
    for (pid_t pid = 10000; pid < 10000 + static_cast<pid_t>(most_sessions) + 5; ++pid) {
        session_entry entry;
        entry.facts.pid = pid;
        table_.sessions[pid] = entry;
    }
    EXPECT_EQ(take(root_monitor, kex_line), 0);
}

TEST_F(session_table_of_a_server, bytes_are_read_when_keys_change) {
    processes()[351].bytes = {.sent = 5, .received = 6, .known = 1};
    clock_now() = 4711;
    take(root_monitor, "debug1: packet.c:ssh_set_newkeys():952 (pid=352): rekey out after 67108864 blocks [preauth]");
    EXPECT_EQ(facts().keyed_at, 4711U);
    EXPECT_EQ(facts().at_keying.sent, 5U);
    EXPECT_EQ(facts().at_keying.received, 6U);
}

TEST_F(session_table_of_a_client, a_session_begins_with_any_users_client) {
    EXPECT_EQ(take({.pid = 539, .user = 1001}, client_line), 539);
    EXPECT_EQ(facts(539).kind, session_kind::outgoing);
    EXPECT_EQ(facts(539).session_pid, 539);
    EXPECT_STREQ(facts(539).user, "operator");
    EXPECT_STREQ(facts(539).host, "r");
}

TEST_F(session_table_of_a_client, the_title_of_a_multiplexing_client_is_recognised) {
    processes()[539].info.name = std::string(client_name) + " : /run/mux [mux]";
    EXPECT_EQ(take({.pid = 539, .user = 1001}, client_line), 539);
    start_process(540, client_program, 1, 0, std::string(client_name) + "x");
    EXPECT_EQ(take({.pid = 540, .user = 1001}, client_line), 0);
}

TEST_F(session_table_of_a_client, each_users_clients_are_limited_but_not_roots) {
    for (pid_t pid = 1000; pid < 1000 + static_cast<pid_t>(most_sessions_of_user); ++pid) {
        start_client(pid);
        EXPECT_EQ(take({.pid = pid, .user = 1001}, client_line), pid);
    }
    EXPECT_EQ(take({.pid = 539, .user = 1001}, client_line), 0);
    EXPECT_EQ(take({.pid = 539, .user = 0}, client_line), 539);
    start_client(540);
    EXPECT_EQ(take({.pid = 540, .user = 1002}, client_line), 540);
}

TEST_F(session_table_of_a_client, a_session_continues_in_a_child) {
    take({.pid = 539, .user = 1001}, client_line);
    start_client(541);
    EXPECT_EQ(take_report(table_, {.pid = 541, .user = 1001}, report_of(channel_line, 0, 539)), 541);
    EXPECT_EQ(facts(541).session_id, 1U);
    EXPECT_EQ(facts(541).session_pid, 541);
    EXPECT_STREQ(facts(541).user, "operator");
    EXPECT_TRUE(table_.sessions.at(539).moved);
}

TEST_F(session_table_of_a_client, a_session_continues_in_a_child_of_a_process_that_has_ended) {
    take({.pid = 539, .user = 1001}, client_line);
    end_process(539);
    forget_session(table_, 539);
    start_client(541);
    EXPECT_EQ(take_report(table_, {.pid = 541, .user = 1001}, report_of(channel_line, 0, 539)), 541);
    EXPECT_EQ(facts(541).session_id, 1U);
    EXPECT_STREQ(facts(541).user, "operator");
    // Only once: a second child begins a new session.
    start_client(542);
    take_report(table_, {.pid = 542, .user = 1001}, report_of(channel_line, 0, 539));
    EXPECT_EQ(facts(542).session_id, 2U);
}

TEST_F(session_table_of_a_client, a_session_does_not_continue_in_another_users_process) {
    take({.pid = 539, .user = 1001}, client_line);
    start_client(541);
    EXPECT_EQ(take_report(table_, {.pid = 541, .user = 1002}, report_of(channel_line, 0, 539)), 541);
    EXPECT_STREQ(facts(541).user, "");
    EXPECT_FALSE(table_.sessions.at(539).moved);
}

TEST_F(session_table_of_a_client, an_ended_session_is_forgotten_after_a_while) {
    take({.pid = 539, .user = 1001}, client_line);
    forget_session(table_, 539);
    EXPECT_EQ(table_.ended.size(), 1U);
    clock_now() += seconds_to_go_on + 1;
    start_client(541);
    take({.pid = 541, .user = 1001}, client_line);
    forget_session(table_, 541);
    EXPECT_EQ(table_.ended.count(539), 0U);
}

TEST_F(session_table_of_a_server, a_restored_session_requires_its_process) {
    take(root_monitor, let_in_line);
    session_facts kept = facts();
    kept.session_id = 77;
    forget_session(table_, 351);
    EXPECT_TRUE(restore_session(table_, kept));
    EXPECT_EQ(table_.last_session_id, 77U);
    forget_session(table_, 351);
    kept.start_time += 1;
    EXPECT_FALSE(restore_session(table_, kept)) << "the process id has been reused";
    kept.pid = 12345;
    EXPECT_FALSE(restore_session(table_, kept)) << "the process is gone";
    EXPECT_TRUE(table_.sessions.empty());
}
