#include "openssh/sessions/session_list.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "common/file_descriptor.h"
#include "scratch.h"
#include "session_test.h"

using namespace openssh;
using namespace openssh_test;

namespace {

constexpr int64_t time_of_boot = 1'700'000'000'900;

class session_list : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directory(numbers_);
        std::filesystem::create_directory(pages_);
        table_ = make_table(pages_, numbers_);
    }

    void take_session(const session_facts& facts) {
        start_process(facts.pid, server_program);
        folder_.write("pages/" + session_name({.pid = facts.pid, .start_time = facts.start_time}),
                      server_file_of(facts));
        ASSERT_EQ(take_server_file(table_, session_name({.pid = facts.pid, .start_time = facts.start_time})),
                  found_file::taken);
    }

    std::vector<session_list_row> rows() { return list_sessions(table_, time_of_boot); }

    scratch_directory folder_;
    std::string pages_ = folder_.file("pages");
    std::string numbers_ = folder_.file("numbers");
    session_table table_;
};

session_facts facts_with_login(pid_t pid) {
    session_facts facts = facts_of_session(pid);
    facts.login.time = 500;
    facts.login.port = 40000;
    set_field(facts.login.vrf, "red");
    set_field(facts.login.key_type, "ED25519");
    set_field(facts.login.key_fingerprint, "SHA256:abc");
    return facts;
}

}  // namespace

TEST_F(session_list, has_the_facts_of_each_session) {
    session_facts facts = facts_with_login(351);
    facts.channels[1] = {.state = channel_running, .id = 0, .type = connection_shell, .terminal = 3};
    facts.channels[2] = {.state = channel_running, .id = 1, .type = connection_shell, .terminal = 2};
    facts.channels[3] = {.state = channel_running, .id = 2, .type = connection_sftp};
    facts.channels[4] = {.state = channel_running, .id = 3, .type = connection_shell, .terminal = 100};
    take_session(facts);
    ASSERT_EQ(rows().size(), 1U);
    const session_list_row row = rows()[0];
    EXPECT_EQ(row.session_id, 1U);
    EXPECT_EQ(row.pid, 351);
    EXPECT_EQ(row.start_time, 3510U);
    EXPECT_EQ(row.state, session_list_established);
    EXPECT_EQ(row.since, 1'700'000'500);
    EXPECT_STREQ(row.vrf, "red");
    EXPECT_STREQ(row.user, "operator");
    EXPECT_STREQ(row.host, "10.0.0.7");
    EXPECT_EQ(row.port, 40000U);
    EXPECT_STREQ(row.method, "password");
    EXPECT_STREQ(row.key_type, "ED25519");
    EXPECT_STREQ(row.key_fingerprint, "SHA256:abc");
    EXPECT_STREQ(row.kex, "ecdh-sha2-nistp256");
    ASSERT_EQ(row.terminal_count, 3U);
    EXPECT_EQ(row.terminals[0], 3U);
    EXPECT_EQ(row.idle, 120) << "the terminal used last counts";
}

TEST_F(session_list, leaves_empty_what_a_page_of_the_first_version_lacks) {
    take_session(facts_of_session(351));
    const session_list_row row = rows().at(0);
    EXPECT_EQ(row.since, 0);
    EXPECT_EQ(row.port, 0U);
    EXPECT_STREQ(row.vrf, "");
    EXPECT_EQ(row.idle, session_list_no_idle_time);
}

TEST_F(session_list, omits_outgoing_and_ended_sessions) {
    take_session(facts_with_login(351));
    start_client(539);
    process_info process;
    ASSERT_TRUE(read_simulated(539, process) && take_client(table_, 539, process));
    EXPECT_EQ(rows().size(), 1U);
    end_process(351);
    EXPECT_TRUE(rows().empty());
}

TEST_F(session_list, has_connections_on_which_nobody_has_logged_in) {
    const auto connection = [](pid_t pid, const char* title) {
        simulated_process& process = start_process(pid, server_program, 1, 0, title);
        process.is_connected = true;
        process.vrf = "blue";
    };
    connection(400, "norvosshd: [accepted]");
    connection(410, "norvosshd: operator [priv]");
    start_process(411, server_program, 410, 0, "norvosshd: operator [net]").info.is_roots = false;
    connection(420, "norvosshd: unknown [priv]");
    start_process(421, server_program, 420, 0, "norvosshd: unknown [net]").info.is_roots = false;
    connection(430, "norvosshd: a\nb [priv]");
    start_process(500, server_program, 1, 0, "norvosshd: /pkg/libexec/norvosshd -D [listener] 0 of 10-100 startups");
    const std::vector<session_list_row> found = rows();
    ASSERT_EQ(found.size(), 4U);
    EXPECT_EQ(found[0].state, session_list_connecting);
    EXPECT_EQ(found[0].pid, 400);
    EXPECT_EQ(found[0].session_id, 0U);
    EXPECT_STREQ(found[0].user, "");
    EXPECT_STREQ(found[0].vrf, "blue");
    EXPECT_STREQ(found[0].host, "2001:db8::7");
    EXPECT_EQ(found[0].port, 4711U);
    EXPECT_EQ(found[0].since, 1'700'000'000 + 4000 / sysconf(_SC_CLK_TCK));
    EXPECT_EQ(found[1].state, session_list_authenticating);
    EXPECT_STREQ(found[1].user, "operator");
    EXPECT_EQ(found[2].state, session_list_authenticating);
    EXPECT_STREQ(found[2].user, "");
    EXPECT_EQ(found[3].state, session_list_unrecorded);
    EXPECT_STREQ(found[3].user, "") << "not printable";
}

TEST(session_list_message, hands_out_a_file_that_nobody_can_change) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const file_descriptor near(ends[0]);
    const file_descriptor far(ends[1]);
    std::vector<session_list_row> rows(3);
    rows[2].pid = 77;
    ASSERT_EQ(send_session_list(near.get(), rows), 0);
    session_list_head head = {};
    const file_descriptor file(receive_list(far.get(), head));
    EXPECT_EQ(head.magic, session_list_magic);
    EXPECT_EQ(head.row_size, sizeof(session_list_row));
    EXPECT_EQ(head.count, 3U);
    ASSERT_EQ(pread(file.get(), rows.data(), sizeof(session_list_row), 2 * sizeof(session_list_row)),
              static_cast<ssize_t>(sizeof(session_list_row)));
    EXPECT_EQ(rows[0].pid, 77);
    EXPECT_EQ(pwrite(file.get(), "x", 1, 0), -1);
    EXPECT_EQ(ftruncate(file.get(), 0), -1);
}

TEST(session_list_message, is_not_sent_to_a_client_that_has_gone) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const file_descriptor near(ends[0]);
    close(ends[1]);
    EXPECT_EQ(send_session_list(near.get(), {}), EPIPE);
}

TEST(terminal, is_idle_since_its_last_input) {
    EXPECT_LT(idle_time_of_terminal(UINT32_MAX), 0);
}

TEST(vrf_of_a_process, is_unknown_outside_of_a_server) {
    EXPECT_EQ(vrf_of_process(getpid()), "");
    EXPECT_EQ(vrf_of_process(INT32_MAX), "");
}
