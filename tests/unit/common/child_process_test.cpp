#include "common/child_process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

pid_t start_child(void (*work)()) {
    const pid_t child = fork();
    if (child == 0) {
        work();
        _exit(7);
    }
    return child;
}

TEST(child_process, a_child_that_ends_is_reaped_afterwards) {
    const pid_t child = start_child([] {});
    EXPECT_TRUE(child_process_ends_before(child, steady::now() + milliseconds(10000)));
    EXPECT_EQ(WEXITSTATUS(child_process_reap(child)), 7);
    EXPECT_EQ(child_process_reap(child), -1);
    EXPECT_FALSE(child_process_ends_before(child, steady::now() + milliseconds(10000))) << "there is no such process";
}

TEST(child_process, a_child_that_hangs_reaches_the_deadline) {
    const pid_t child = start_child([] { pause(); });
    EXPECT_FALSE(child_process_ends_before(child, steady::now() + milliseconds(50)));
    EXPECT_FALSE(child_process_ends_before(child, steady::now() - milliseconds(50)));
    kill(child, SIGKILL);
    EXPECT_EQ(WTERMSIG(child_process_reap(child)), SIGKILL);
}

TEST(child_process, a_prepared_child_has_no_blocked_signals) {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const bool prepared = child_process_prepare(getppid());
        sigset_t blocked;
        sigprocmask(SIG_SETMASK, nullptr, &blocked);
        _exit(prepared && sigisemptyset(&blocked) != 0 ? 0 : 1);
    }
    EXPECT_EQ(child_process_reap(child), 0);
}

TEST(child_process, is_not_prepared_when_its_parent_has_ended) {
    const pid_t child = start_child([] { _exit(child_process_prepare(getpid()) ? 1 : 0); });
    EXPECT_EQ(child_process_reap(child), 0);
}

}  // namespace
