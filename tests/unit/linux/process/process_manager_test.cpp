#include "platform/process_manager.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <chrono>
#include <thread>

#include "linux/process/event_manager_internal.h"
#include "linux/process/paths.h"
#include "linux/process/platform_config.h"
#include "unit/linux/platform_test_support.h"

using platform_test::datagram_listener;
using platform_test::journal_listener;
using platform_test::read_file;
using platform_test::write_file;

namespace {

class respawn_count_test : public testing::Test {
  protected:
    void SetUp() override {
        process_manager_reset();
        std::filesystem::create_directories(runtime_directory);
        std::filesystem::remove_all(runtime_respawn_file);
    }
    void TearDown() override { SetUp(); }

    /// Starts again, as a new process does.
    uint32_t start() {
        process_manager_reset();
        process_manager_count_start();
        return process_manager_respawn_count();
    }
};

TEST_F(respawn_count_test, grows_with_each_start_until_a_clean_stop) {
    EXPECT_EQ(1u, start());
    EXPECT_EQ("1\n", read_file(runtime_respawn_file));
    EXPECT_EQ(2u, start());
    EXPECT_EQ(3u, start());
    std::filesystem::remove(runtime_respawn_file);
    EXPECT_EQ(1u, start());
    EXPECT_FALSE(std::filesystem::exists(std::string(runtime_respawn_file) + ".new"));
}

TEST_F(respawn_count_test, is_counted_once_per_process) {
    EXPECT_EQ(0u, process_manager_respawn_count()) << "before the start is counted";
    EXPECT_EQ(1u, start());
    process_manager_count_start();
    EXPECT_EQ(1u, process_manager_respawn_count());
    EXPECT_EQ("1\n", read_file(runtime_respawn_file));
}

TEST_F(respawn_count_test, is_counted_when_the_event_manager_is_created) {
    write_file(runtime_respawn_file, "4\n");
    struct event_manager* manager = nullptr;
    ASSERT_EQ(0, event_manager_create("/dev/ssh_cfg_agent", &manager));
    EXPECT_EQ(5u, process_manager_respawn_count());
    event_manager_free(manager);
}

TEST_F(respawn_count_test, an_invalid_file_counts_as_a_first_start) {
    for (const char* text : {"", "x\n", "3", "3x\n", "-3\n", "99999999999\n", "\n"}) {
        journal_listener journal;
        write_file(runtime_respawn_file, text);
        EXPECT_EQ(1u, start()) << text;
        EXPECT_EQ(
            "/run/ssh_cfg_agent/respawn_count does not contain a number\n"
            "Starting the agent, start 1 since the last clean stop\n",
            journal.messages())
            << text;
    }
}

TEST_F(respawn_count_test, does_not_exceed_its_largest_number) {
    write_file(runtime_respawn_file, "4294967294\n");
    EXPECT_EQ(UINT32_MAX, start());
    EXPECT_EQ(UINT32_MAX, start());
}

TEST_F(respawn_count_test, a_link_in_its_place_is_not_followed) {
    write_file("/tmp/elsewhere", "7\n");
    ASSERT_EQ(0, symlink("/tmp/elsewhere", runtime_respawn_file));
    EXPECT_EQ(1u, start());
    EXPECT_EQ("7\n", read_file("/tmp/elsewhere"));
    EXPECT_EQ("1\n", read_file(runtime_respawn_file));
}

TEST_F(respawn_count_test, a_number_that_cannot_be_stored_is_reported_and_still_counts) {
    write_file(runtime_respawn_file, "1\n");
    ASSERT_EQ(0, mount(runtime_directory, runtime_directory, nullptr, MS_BIND, nullptr));
    ASSERT_EQ(0, mount(nullptr, runtime_directory, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr));
    journal_listener journal;
    EXPECT_EQ(2u, start());
    EXPECT_EQ(
        "Cannot write /run/ssh_cfg_agent/respawn_count, so a restart will look like a first start: Read-only "
        "file system\nStarting the agent, start 2 since the last clean stop\n",
        journal.messages());
    umount2(runtime_directory, MNT_DETACH);
    EXPECT_EQ("1\n", read_file(runtime_respawn_file)) << "the old number is kept";
}

TEST_F(respawn_count_test, a_full_file_system_keeps_the_old_number) {
    ASSERT_EQ(0, mount("small", runtime_directory, "tmpfs", 0, "size=8192"));
    write_file(runtime_respawn_file, "1\n");
    write_file(std::string(runtime_directory) + "/filler", std::string(4096, 'x'));
    journal_listener journal;
    EXPECT_EQ(2u, start());
    EXPECT_NE(std::string::npos, journal.messages().find("No space left on device"));
    EXPECT_EQ("1\n", read_file(runtime_respawn_file));
    EXPECT_FALSE(std::filesystem::exists(std::string(runtime_respawn_file) + ".new"));
    process_manager_reset();
    umount2(runtime_directory, MNT_DETACH);
}

class process_manager_test : public testing::Test {
  protected:
    void TearDown() override {
        unsetenv("NOTIFY_SOCKET");
        std::filesystem::remove(platform_config_file);
        process_manager_reset();
    }
};

TEST_F(process_manager_test, readiness_is_notified_to_the_service_manager) {
    datagram_listener notify("/run/notify");
    ASSERT_EQ(0, setenv("NOTIFY_SOCKET", "/run/notify", 1));
    EXPECT_FALSE(process_manager_status().ready);
    errno = ENOSPC;
    process_manager_notify_ready();
    process_manager_ready();
    EXPECT_TRUE(process_manager_status().ready);
    process_manager_notify_ready();
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ("READY=1", notify.receive());
}

TEST_F(process_manager_test, a_primary_is_ready_at_its_first_wait_for_an_event) {
    datagram_listener notify("/run/notify");
    ASSERT_EQ(0, setenv("NOTIFY_SOCKET", "/run/notify", 1));
    struct event_manager* manager = nullptr;
    ASSERT_EQ(0, event_manager_create("/dev/ssh_cfg_agent", &manager));
    process_manager_ready();
    EXPECT_EQ("", notify.receive(0));
    sd_event_add_defer(
        event_manager_sd_event(manager), nullptr, [](sd_event_source*, void*) { return 0; }, nullptr);
    struct event_manager_event event;
    ASSERT_EQ(0, event_manager_block(manager, &event));
    EXPECT_EQ("READY=1", notify.receive());
    event_manager_free(manager);
}

TEST_F(process_manager_test, progress_feeds_the_watchdog) {
    datagram_listener notify("/run/notify");
    ASSERT_EQ(0, setenv("NOTIFY_SOCKET", "/run/notify", 1));
    errno = ENOSPC;
    process_manager_progress();
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ("WATCHDOG=1\nEXTEND_TIMEOUT_USEC=120000000", notify.receive()) << "while the agent starts";
    process_manager_progress();
    EXPECT_EQ("", notify.receive()) << "not more often than needed";
    process_manager_reset();
    process_manager_ready();
    process_manager_notify_ready();
    EXPECT_EQ("READY=1", notify.receive());
    process_manager_progress();
    EXPECT_EQ("WATCHDOG=1", notify.receive());
}

int works_at_progress = 0;
process_step step_at_work;

void work_and_fail() {
    works_at_progress++;
    step_at_work = process_manager_current_step();
    errno = EIO;
    process_manager_progress();
}

TEST_F(process_manager_test, work_is_done_at_each_report_of_progress_but_not_within_itself) {
    works_at_progress = 0;
    process_manager_at_progress(work_and_fail);
    errno = ENOSPC;
    process_manager_progress();
    process_manager_progress();
    EXPECT_EQ(2, works_at_progress);
    EXPECT_EQ(ENOSPC, errno);
    process_manager_at_progress(nullptr);
    process_manager_progress();
    EXPECT_EQ(2, works_at_progress);
}

TEST_F(process_manager_test, a_step_is_known_until_it_is_forgotten) {
    process_manager_at_progress(work_and_fail);
    std::string work = "restarting servers";
    process_manager_step(work.c_str(), 64, 256);
    work.clear();
    EXPECT_EQ("restarting servers", step_at_work.work);
    EXPECT_EQ(64U, step_at_work.done);
    EXPECT_EQ(256U, step_at_work.total);
    process_manager_forget_step();
    EXPECT_EQ("", process_manager_current_step().work);
}

TEST_F(process_manager_test, progress_is_reported_in_time_for_a_short_watchdog) {
    datagram_listener notify("/run/notify");
    ASSERT_EQ(0, setenv("NOTIFY_SOCKET", "/run/notify", 1));
    ASSERT_EQ(0, setenv("WATCHDOG_USEC", "40000", 1));
    ASSERT_EQ(0, setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1));
    process_manager_progress();
    EXPECT_NE("", notify.receive());
    usleep(11000);
    process_manager_progress();
    EXPECT_NE("", notify.receive());
}

TEST_F(process_manager_test, progress_extends_a_stop_that_waits_for_work_in_progress) {
    datagram_listener notify("/run/notify");
    ASSERT_EQ(0, setenv("NOTIFY_SOCKET", "/run/notify", 1));
    process_manager_ready();
    process_manager_notify_ready();
    EXPECT_EQ("READY=1", notify.receive());
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    raise(SIGTERM);
    process_manager_progress();
    EXPECT_EQ("WATCHDOG=1\nEXTEND_TIMEOUT_USEC=120000000", notify.receive());
}

TEST_F(process_manager_test, readiness_that_cannot_be_notified_is_reported) {
    journal_listener journal;
    ASSERT_EQ(0, setenv("NOTIFY_SOCKET", "/run/nobody", 1));
    process_manager_ready();
    process_manager_notify_ready();
    EXPECT_EQ("Cannot report readiness to the service manager: No such file or directory\n", journal.messages());
    unsetenv("NOTIFY_SOCKET");
    process_manager_notify_ready();
    EXPECT_EQ("", journal.messages()) << "without a service manager there is nothing to report";
}

TEST_F(process_manager_test, the_role_comes_from_the_platforms_file) {
    EXPECT_EQ(static_cast<uint32_t>(PROCESS_ROLE_PRIMARY), process_manager_role());
    write_file(platform_config_file, "role = standby\n");
    EXPECT_EQ(static_cast<uint32_t>(PROCESS_ROLE_STANDBY), process_manager_role());
    EXPECT_EQ(static_cast<uint32_t>(PROCESS_ROLE_STANDBY), process_manager_status().role);
}

TEST_F(process_manager_test, an_invalid_role_is_reported_and_the_node_is_primary) {
    journal_listener journal;
    write_file(platform_config_file, "role = backup\n");
    EXPECT_EQ(static_cast<uint32_t>(PROCESS_ROLE_PRIMARY), process_manager_role());
    EXPECT_EQ("/etc/ssh_cfg_agent/platform.conf, line 1: role is \"backup\"; expected primary or standby\n",
              journal.messages());
}

/// Waits for the role in a child process, because the wait blocks.
class waiting_process {
  public:
    waiting_process() {
        pid = fork();
        if (pid == 0) {
            signal(SIGALRM, [](int) {});
            _exit(process_manager_wait_primary() == 0 ? 0 : 1);
        }
        // Long enough for the wait to begin; an earlier change is found as well.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ~waiting_process() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    /// The exit status, or -1 if the wait has not ended after `milliseconds`.
    int result(int milliseconds) {
        for (int waited = 0; waited <= milliseconds; waited += 10) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }
    pid_t pid;
};

TEST_F(process_manager_test, the_wait_ends_when_the_file_says_primary) {
    write_file(platform_config_file, "role = standby\n");
    waiting_process waiting;
    EXPECT_EQ(-1, waiting.result(100));
    write_file(platform_config_file, "role = primary\n");
    EXPECT_EQ(0, waiting.result(3000));
}

TEST_F(process_manager_test, the_wait_ends_when_the_file_is_replaced_or_removed) {
    for (const bool replaced : {true, false}) {
        write_file(platform_config_file, "role = standby\n");
        waiting_process waiting;
        if (replaced) {
            write_file("/etc/ssh_cfg_agent/new", "role = primary\n");
            std::filesystem::rename("/etc/ssh_cfg_agent/new", platform_config_file);
        } else {
            std::filesystem::remove(platform_config_file);
        }
        EXPECT_EQ(0, waiting.result(3000));
    }
}

TEST_F(process_manager_test, the_wait_continues_after_errors_other_files_and_signals) {
    write_file(platform_config_file, "role = standby\n");
    waiting_process waiting;
    write_file(platform_config_file, "role = primery\n");
    write_file("/etc/ssh_cfg_agent/other", "role = primary\n");
    kill(waiting.pid, SIGALRM);
    EXPECT_EQ(-1, waiting.result(500));
    write_file(platform_config_file, "node_number = 3\n");
    EXPECT_EQ(-1, waiting.result(500)) << "only an explicit line makes a standby primary";
    write_file(platform_config_file, "role = primary\n");
    EXPECT_EQ(0, waiting.result(3000));
}

TEST_F(process_manager_test, a_file_missing_for_a_moment_does_not_make_a_primary) {
    write_file(platform_config_file, "role = standby\n");
    waiting_process waiting;
    std::filesystem::rename(platform_config_file, "/etc/ssh_cfg_agent/platform.conf~");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    write_file(platform_config_file, "role = standby\n");
    EXPECT_EQ(-1, waiting.result(600));
    std::filesystem::remove("/etc/ssh_cfg_agent/platform.conf~");
}

TEST_F(process_manager_test, without_a_file_there_is_no_wait) {
    umount2(platform_config_directory, MNT_DETACH);
    std::filesystem::remove_all(platform_config_directory);
    EXPECT_EQ(0, process_manager_wait_primary());
    std::filesystem::create_directories(platform_config_directory);
}

TEST_F(process_manager_test, a_wait_that_cannot_be_set_up_fails) {
    write_file(platform_config_file, "role = standby\n");
    journal_listener journal;
    int result = 0;
    {
        const platform_test::no_descriptors_left none;
        result = process_manager_wait_primary();
    }
    EXPECT_EQ(-1, result);
    EXPECT_NE(std::string::npos, journal.messages().find("Cannot wait for the primary role: "));
}

}  // namespace
