#include "aaa_pam/session_limit.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "unit/openssh/scratch.h"

namespace {

class session_limit : public testing::Test {
  protected:
    /// The descriptor of a new session; -1 if it is refused or not counted.
    int enter() {
        int lock = -1;
        EXPECT_EQ(session_limit_enter(directory(), &count_, &lock), 0);
        return lock;
    }
    uint32_t open_sessions() {
        EXPECT_EQ(session_limit_count(directory(), &count_), 0);
        return count_.open;
    }
    const char* directory() const { return scratch_.path().c_str(); }

    openssh_test::scratch_directory scratch_;
    session_count count_;
};

}  // namespace

TEST_F(session_limit, without_a_limit_no_session_is_counted) {
    EXPECT_EQ(enter(), -1);
    EXPECT_FALSE(count_.is_full());
    EXPECT_EQ(open_sessions(), 0U);
    EXPECT_TRUE(std::filesystem::is_empty(scratch_.path()));
}

TEST_F(session_limit, sessions_enter_up_to_the_limit_and_again_after_one_has_ended) {
    ASSERT_EQ(session_limit_set(directory(), 2), 0);
    const int first = enter();
    EXPECT_GE(first, 0);
    EXPECT_EQ(count_.open, 1U);
    EXPECT_GE(enter(), 0);
    EXPECT_EQ(enter(), -1);
    EXPECT_TRUE(count_.is_full());
    EXPECT_EQ(count_.open, 2U);
    close(first);
    EXPECT_EQ(open_sessions(), 1U);
    EXPECT_FALSE(count_.is_full());
    EXPECT_GE(enter(), 0);
}

TEST_F(session_limit, open_sessions_count_towards_another_limit) {
    ASSERT_EQ(session_limit_set(directory(), 100), 0);
    for (int session = 0; session < 5; ++session) {
        EXPECT_GE(enter(), 0);
    }
    ASSERT_EQ(session_limit_set(directory(), 3), 0);
    EXPECT_EQ(enter(), -1);
    EXPECT_EQ(open_sessions(), 5U);
    ASSERT_EQ(session_limit_set(directory(), 6), 0);
    EXPECT_GE(enter(), 0);
    EXPECT_EQ(enter(), -1);
}

TEST_F(session_limit, a_killed_session_no_longer_counts) {
    ASSERT_EQ(session_limit_set(directory(), 1), 0);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t session = fork();
    if (session == 0) {
        enter();
        close(ready[0]);
        close(ready[1]);
        pause();
        _exit(0);
    }
    close(ready[1]);
    char nothing = 0;
    EXPECT_EQ(read(ready[0], &nothing, 1), 0);
    EXPECT_EQ(open_sessions(), 1U);
    kill(session, SIGKILL);
    waitpid(session, nullptr, 0);
    EXPECT_EQ(open_sessions(), 0U);
    close(ready[0]);
}

// A session's unprivileged process can outlive the privileged one that entered.
TEST_F(session_limit, a_session_counts_until_its_last_process_ends) {
    ASSERT_EQ(session_limit_set(directory(), 1), 0);
    const int lock = enter();
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    close(lock);
    EXPECT_EQ(open_sessions(), 1U);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(open_sessions(), 0U);
}

TEST_F(session_limit, many_at_once_do_not_exceed_the_limit) {
    ASSERT_EQ(session_limit_set(directory(), 7), 0);
    int entered[2];
    int end[2];
    ASSERT_EQ(pipe(entered), 0);
    ASSERT_EQ(pipe(end), 0);
    for (int i = 0; i < 30; ++i) {
        if (fork() == 0) {
            close(end[1]);
            const char found = enter() >= 0 ? '+' : '-';
            EXPECT_EQ(write(entered[1], &found, 1), 1);
            char nothing = 0;
            _exit(static_cast<int>(read(end[0], &nothing, 1)));
        }
    }
    int sessions = 0;
    for (int i = 0; i < 30; ++i) {
        char found = 0;
        ASSERT_EQ(read(entered[0], &found, 1), 1);
        sessions += found == '+' ? 1 : 0;
    }
    EXPECT_EQ(sessions, 7);
    close(end[1]);
    while (wait(nullptr) > 0) {
    }
}

TEST_F(session_limit, each_network_namespace_has_its_own_count) {
    ASSERT_EQ(session_limit_set(directory(), 1), 0);
    EXPECT_GE(enter(), 0);
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    EXPECT_EQ(open_sessions(), 0U);
    EXPECT_EQ(count_.limit, 0U);
    ASSERT_EQ(session_limit_set(directory(), 1), 0);
    EXPECT_GE(enter(), 0);
}

TEST_F(session_limit, only_root_can_open_the_file) {
    ASSERT_EQ(session_limit_set(directory(), 1), 0);
    struct stat status;
    ASSERT_EQ(stat(std::filesystem::directory_iterator(scratch_.path())->path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(session_limit, an_invalid_limit_limits_nothing) {
    ASSERT_EQ(session_limit_set(directory(), 1), 0);
    const std::string path = std::filesystem::directory_iterator(scratch_.path())->path();
    for (const char* text : {"", "x\n", "5", "1001\n", "5 \n", "99999999999999999999\n"}) {
        std::ofstream(path) << text;
        EXPECT_EQ(enter(), -1) << text;
        EXPECT_EQ(count_.limit, 0U) << text;
    }
}

TEST_F(session_limit, failures_are_errno_values) {
    const std::string missing = scratch_.file("none");
    EXPECT_EQ(session_limit_set(missing.c_str(), 1), ENOENT);
    EXPECT_EQ(session_limit_count(missing.c_str(), &count_), 0);
    const std::string file = scratch_.write("file", "");
    EXPECT_EQ(session_limit_count(file.c_str(), &count_), ENOTDIR);
    int lock = 0;
    EXPECT_EQ(session_limit_enter(file.c_str(), &count_, &lock), ENOTDIR);
    EXPECT_EQ(lock, -1);
}
