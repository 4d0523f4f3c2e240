#include "openssh/sessions/discovery.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "scratch.h"
#include "session_test.h"

using namespace openssh;
using namespace openssh_test;

namespace {

class session_discovery : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directory(folder_.file("pages"));
        std::filesystem::create_directory(folder_.file("numbers"));
        table_ = make_table(folder_.file("pages"), folder_.file("numbers"));
    }

    void write_file(pid_t pid) {
        folder_.write("pages/" + session_name({.pid = pid, .start_time = static_cast<uint64_t>(pid) * 10}),
                      server_file_of(facts_of_session(pid)));
    }

    void start_server(pid_t pid) {
        start_process(pid, server_program);
        write_file(pid);
    }

    /// "incoming outgoing".
    std::string totals() {
        session_totals found;
        find_clients(table_, found);
        return std::to_string(found.incoming) + " " + std::to_string(found.outgoing);
    }

    bool has(const std::string& name) const { return exists(folder_.file("pages/" + name)); }

    scratch_directory folder_;
    session_table table_;
};

}  // namespace

TEST_F(session_discovery, finds_servers_in_the_order_in_which_they_began) {
    for (const pid_t pid : {20, 1000, 3}) {
        start_server(pid);
    }
    EXPECT_EQ(find_servers(table_), (std::vector<pid_t>{3, 20, 1000}));
    EXPECT_EQ(table_.sessions.at(3).facts.session_id, 1U);
    EXPECT_EQ(table_.sessions.at(1000).facts.session_id, 3U);
    EXPECT_TRUE(find_servers(table_).empty()) << "nothing is new";
    EXPECT_EQ(find_server(table_, "20.200"), 0);
    start_server(4);
    EXPECT_EQ(find_server(table_, "4.40"), 4);
}

TEST_F(session_discovery, removes_files_without_a_process) {
    start_server(351);
    write_file(352);
    folder_.write("pages/last", "1");
    EXPECT_EQ(find_servers(table_), (std::vector<pid_t>{351}));
    EXPECT_TRUE(has("351.3510"));
    EXPECT_FALSE(has("352.3520"));
    EXPECT_FALSE(has("last"));
    write_file(353);
    EXPECT_EQ(find_server(table_, "353.3530"), 0);
    EXPECT_FALSE(has("353.3530"));
}

TEST_F(session_discovery, keeps_files_for_which_there_is_no_room) {
    for (pid_t pid = 10000; pid < 10000 + static_cast<pid_t>(most_sessions); ++pid) {
        table_.sessions[pid].facts.pid = pid;
    }
    start_server(351);
    EXPECT_TRUE(find_servers(table_).empty());
    EXPECT_TRUE(has("351.3510"));
    EXPECT_EQ(totals(), "1 0") << "it counts nevertheless";
}

TEST_F(session_discovery, counts_sessions_whether_or_not_they_have_pages) {
    EXPECT_EQ(totals(), "0 0");
    start_server(351);
    find_servers(table_);
    start_process(352, server_program);
    start_client(539);
    start_process(540, client_program, 1, 0, client_name).is_connected = true;
    EXPECT_EQ(totals(), "2 2");
    EXPECT_EQ(totals(), "2 2") << "again";
    EXPECT_EQ(table_.sessions.size(), 2U);
}

TEST_F(session_discovery, counts_no_processes_that_are_no_sessions) {
    start_process(351, server_program, 1, 0, "norvosshd: /pkg/libexec/norvosshd -f sshd_config_a@b -D [listener]");
    start_process(352, server_program, 351);
    start_process(353, server_program, 352, 0, "norvosshd: operator [net]");
    start_process(354, server_program, 352, 0, "norvosshd: operator@pts/0").info.is_roots = false;
    start_process(355, "/usr/bin/python3", 1, 0, "sshd: root [priv]");
    start_process(356, server_program).info.is_roots = false;
    start_process(540, client_program, 1, 0, client_name);
    start_process(541, client_program, 1, 0, "ssh").is_connected = true;
    EXPECT_EQ(totals(), "0 0") << "a listener, a login, a user's programs, a window, another ssh";
    end_process(353);
    EXPECT_EQ(totals(), "1 0") << "the login has become a session";
}

TEST_F(session_discovery, counts_roots_sessions_which_have_no_monitor) {
    start_process(351, server_program, 1, 0, "norvosshd: root@pts/0");
    start_process(352, server_program, 1, 0, "norvosshd: root@notty");
    EXPECT_EQ(totals(), "2 0");
}

TEST_F(session_discovery, finds_sessions_that_continue_elsewhere) {
    start_client(539);
    start_client(540);
    start_server(351);
    find_servers(table_);
    EXPECT_EQ(totals(), "1 2");
    EXPECT_TRUE(find_left_pages(table_).empty());
    close(processes()[540].page);
    processes()[540].page = -1;
    EXPECT_EQ(find_left_pages(table_), (std::vector<pid_t>{540}));
}

TEST_F(session_discovery, none_of_ten_thousand_sessions_is_incomplete) {
    for (pid_t pid = 10001; pid <= 20000; ++pid) {
        if (pid % 4 == 0) {
            start_client(pid, facts_of_session(pid, "client"), static_cast<uid_t>(pid));
        } else {
            start_server(pid);
        }
    }
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    // Only one descriptor per process, which stays within the limit.
    table_.processes.open = [](pid_t pid) {
        const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
        opened_processes()[descriptor] = pid;
        return descriptor;
    };
    find_servers(table_);
    EXPECT_EQ(totals(), "7500 2500");
    ASSERT_EQ(table_.sessions.size(), 10000U);
    for (auto& [pid, session] : table_.sessions) {
        const session_facts& facts = current_facts(table_, session);
        ASSERT_STREQ(facts.user, pid % 4 == 0 ? "client" : "operator");
        ASSERT_STREQ(facts.method, "password");
    }
}
