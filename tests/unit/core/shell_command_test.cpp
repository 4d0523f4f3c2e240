#include "core/shell_command.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>

#include "../agent_test.h"
#include "core/command_output.h"
#include "core/trace_points.h"
#include "fake/taken_commands.h"
#include "files.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr command_limit short_limit = {200, false};
constexpr command_limit tried_once = {200, true};
constexpr command_limit ample = {20'000, false};

class shell_command_test : public agent_test {};

uint64_t milliseconds_of(const std::function<void()>& work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    const auto taken = std::chrono::steady_clock::now() - begin;
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(taken).count());
}

/// Whether the process exists and is not a zombie.
bool is_running(int pid) {
    std::string status;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/stat"), status);
    const size_t name_end = status.rfind(')');
    return name_end != std::string::npos && status[name_end + 2] != 'Z';
}

std::string output_of(const char* command, const command_limit& limit) {
    FILE* stream = read_shell_command(command, limit);
    if (stream == nullptr) {
        return "none";
    }
    char text[4096];
    const size_t size = fread(text, 1, sizeof text, stream);
    fclose(stream);
    return std::string(text, size);
}

}  // namespace

TEST_F(shell_command_test, returns_the_wait_status_and_leaves_errno_alone) {
    for (const int before : {0, EEXIST}) {
        errno = before;
        EXPECT_EQ(run_shell_command("true", ample), 0);
        EXPECT_EQ(errno, before);
        const int status = run_shell_command("exit 3", ample);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 3);
        EXPECT_EQ(errno, before);
    }
    EXPECT_TRUE(WIFSIGNALED(run_shell_command("kill -9 $$", ample)));
    EXPECT_EQ(WEXITSTATUS(run_shell_command("no_such_command 2>/dev/null", ample)), 127);
}

TEST_F(shell_command_test, returns_as_soon_as_the_command_has_ended) {
    EXPECT_LT(milliseconds_of([] { run_shell_command("sleep 0.1", ample); }), 5000U);
}

TEST_F(shell_command_test, a_command_that_hangs_is_killed_with_its_descendants) {
    errno = 0;
    int result = 0;
    const uint64_t taken = milliseconds_of([&result] {
        result = run_shell_command(
            "(echo $(sh -c 'echo $PPID') >/tmp/descendant; sleep 1000) & cat /dev/zero >/dev/null", short_limit);
    });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(taken, 200U);
    EXPECT_LT(taken, 1500U);
    const int descendant = std::stoi(read_file("/tmp/descendant"));
    for (int attempt = 0; is_running(descendant) && attempt < 100; attempt++) {
        usleep(10000);
    }
    EXPECT_FALSE(is_running(descendant));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was not reaped";
    EXPECT_EQ(errno, ECHILD);
    EXPECT_THAT(fake_platform::log_texts(), Contains(HasSubstr("Command did not end in time: (echo")));
    const auto traced = fake_platform::trace_lines_of("ssh/cfg-agent/error");
    ASSERT_EQ(traced.size(), 1U);
    EXPECT_EQ(traced[0].code, static_cast<uint32_t>(core_trace_command_timed_out));
}

TEST_F(shell_command_test, a_command_that_ignores_signals_is_killed) {
    EXPECT_EQ(run_shell_command("trap '' TERM INT HUP QUIT; while :; do sleep 1; done", short_limit), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(shell_command_test, a_stopped_command_times_out) {
    EXPECT_EQ(run_shell_command("kill -STOP $$", short_limit), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(shell_command_test, a_command_does_not_inherit_blocked_signals) {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    EXPECT_TRUE(WIFSIGNALED(run_shell_command("kill -TERM $$", ample)));
    sigset_t now;
    sigprocmask(SIG_BLOCK, nullptr, &now);
    EXPECT_EQ(sigismember(&now, SIGTERM), 1);
    EXPECT_EQ(sigismember(&now, SIGCHLD), 0);
}

TEST_F(shell_command_test, signals_and_other_children_do_not_end_the_wait) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    const pid_t other = fork();
    if (other == 0) {
        usleep(50000);
        kill(getppid(), SIGUSR1);
        _exit(0);
    }
    EXPECT_EQ(WEXITSTATUS(run_shell_command("sleep 0.3; exit 7", ample)), 7);
    EXPECT_EQ(waitpid(other, nullptr, 0), other) << "an unrelated child was reaped";
}

TEST_F(shell_command_test, a_command_runs_when_all_descriptors_are_in_use) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit few = {20, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
    }
    EXPECT_EQ(WEXITSTATUS(run_shell_command("exit 4", ample)), 4);
    errno = 0;
    EXPECT_EQ(read_shell_command("echo text", ample), nullptr);
    EXPECT_EQ(errno, EMFILE);
    setrlimit(RLIMIT_NOFILE, &limit);  // the leak check at the end needs descriptors
}

TEST_F(shell_command_test, a_missing_shell_is_a_failure) {
    std::filesystem::rename("/bin/sh", "/bin/sh.away");
    errno = 0;
    EXPECT_EQ(run_shell_command("true", ample), -1);
    EXPECT_EQ(errno, ENOENT);
    std::filesystem::rename("/bin/sh.away", "/bin/sh");
}

TEST_F(shell_command_test, within_a_group_a_program_is_not_run_again_after_a_timeout) {
    stub_commands::set_delay("systemctl", 5000, 1);
    begin_command_group();
    EXPECT_EQ(run_shell_command("systemctl restart a", tried_once), -1);
    errno = 0;
    EXPECT_EQ(run_shell_command("systemctl restart b", tried_once), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(run_shell_command("nft -f c", short_limit), 0) << "another program is run";
    end_command_group();
    EXPECT_EQ(run_shell_command("systemctl restart d", tried_once), 0);
    begin_command_group();
    EXPECT_EQ(run_shell_command("systemctl restart e", tried_once), 0);
    end_command_group();
    EXPECT_THAT(stub_commands::log(),
                ElementsAre("systemctl restart a", "nft -f c", "systemctl restart d", "systemctl restart e"));
}

TEST_F(shell_command_test, outside_a_group_every_command_is_run) {
    stub_commands::set_delay("systemctl", 5000, 1);
    EXPECT_EQ(run_shell_command("systemctl restart a", tried_once), -1);
    EXPECT_EQ(run_shell_command("systemctl restart b", tried_once), 0);
}

TEST_F(shell_command_test, a_nested_group_belongs_to_the_outer_one) {
    stub_commands::set_delay("systemctl", 5000, 1);
    begin_command_group();
    EXPECT_EQ(run_shell_command("systemctl restart a", tried_once), -1);
    begin_command_group();
    EXPECT_EQ(run_shell_command("systemctl restart b", tried_once), -1);
    end_command_group();
    EXPECT_EQ(run_shell_command("systemctl restart c", tried_once), -1);
    end_command_group();
    EXPECT_THAT(stub_commands::log(), ElementsAre("systemctl restart a"));
}

TEST_F(shell_command_test, a_command_that_the_platform_takes_is_not_run) {
    fake_platform::take_command("exit 3", 7 << 8);
    errno = EEXIST;
    EXPECT_EQ(7 << 8, run_shell_command("exit 3", ample));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(3 << 8, run_shell_command("exit  3", ample)) << "another command is run";
}

TEST_F(shell_command_test, each_command_reports_progress) {
    const uint32_t before = fake_platform::progress_reports();
    run_shell_command("true", ample);
    EXPECT_GT(fake_platform::progress_reports(), before);
}

// A command that hangs must not look like progress to a watchdog.
TEST_F(shell_command_test, a_long_command_reports_that_it_is_waited_for) {
    const uint32_t before = fake_platform::waits();
    const uint32_t progress_before = fake_platform::progress_reports();
    run_shell_command("sleep 0.5", ample);
    EXPECT_GE(fake_platform::waits(), before + 4);
    EXPECT_EQ(fake_platform::progress_reports(), progress_before + 2);
}

TEST_F(shell_command_test, the_output_of_a_command_is_read) {
    EXPECT_EQ(output_of("echo one; echo two >&2; echo three; exit 1", ample), "one\nthree\n");
    EXPECT_EQ(output_of("true", ample), "");
    errno = 0;
    EXPECT_EQ(output_of("echo one; sleep 1000", short_limit), "none");
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(shell_command_test, no_descriptor_is_left_behind) {
    const int before = dup(0);
    close(before);
    output_of("true", ample);
    output_of("sleep 1000", short_limit);
    run_shell_command("true", ample);
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}
