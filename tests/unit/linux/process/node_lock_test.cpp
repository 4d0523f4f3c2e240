#include "linux/process/node_lock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "linux/process/paths.h"
#include "unit/linux/platform_test_support.h"

using platform_test::read_file;
using platform_test::write_file;

namespace {

/// Another agent: takes the lock and holds it until it is told to end.
class other_agent {
  public:
    other_agent() {
        int ready[2];
        EXPECT_EQ(0, pipe2(ready, O_CLOEXEC));
        pid = fork();
        if (pid == 0) {
            struct event_manager* manager = nullptr;
            const char result = event_manager_create("/dev/ssh_cfg_agent", &manager) == 0 ? '1' : '0';
            _exit(write(ready[1], &result, 1) == 1 && pause() != 0 ? 1 : 0);
        }
        close(ready[1]);
        char result = '0';
        EXPECT_EQ(1, read(ready[0], &result, 1));
        EXPECT_EQ('1', result);
        close(ready[0]);
    }
    void kill_it() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }
    ~other_agent() {
        if (pid > 0) {
            kill_it();
        }
    }
    pid_t pid;
};

TEST(second_agent_test, is_refused_with_the_process_id_of_the_first) {
    process_manager_reset();
    other_agent first;
    const std::string count = read_file(runtime_respawn_file);
    struct event_manager* manager = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, event_manager_create("/dev/ssh_cfg_agent", &manager));
    const int error = errno;
    EXPECT_EQ(
        "ssh_cfg_agent: Another agent is already running on this node: process " + std::to_string(first.pid) + "\n",
        testing::internal::GetCapturedStderr());
    EXPECT_EQ(EBUSY, error);
    EXPECT_EQ(nullptr, manager);
    EXPECT_EQ(count, read_file(runtime_respawn_file)) << "a refused start is not counted";
    EXPECT_EQ(0u, process_manager_respawn_count());
}

TEST(second_agent_test, may_start_when_the_first_was_killed) {
    process_manager_reset();
    other_agent first;
    first.kill_it();
    struct event_manager* manager = nullptr;
    EXPECT_EQ(0, event_manager_create("/dev/ssh_cfg_agent", &manager));
    event_manager_free(manager);
    process_manager_reset();
}

TEST(second_agent_test, is_refused_when_the_first_has_not_yet_written_its_process_id) {
    process_manager_reset();
    other_agent first;
    write_file(runtime_lock_file, "");
    struct event_manager* manager = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, event_manager_create("/dev/ssh_cfg_agent", &manager));
    EXPECT_EQ("ssh_cfg_agent: Another agent is starting on this node\n", testing::internal::GetCapturedStderr());
}

TEST(agent_lock_test, failure_is_reported_with_its_reason) {
    process_manager_reset();
    std::filesystem::remove_all(runtime_directory);
    write_file(runtime_directory, "in the way");
    struct event_manager* manager = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, event_manager_create("/dev/ssh_cfg_agent", &manager));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_EQ("ssh_cfg_agent: Cannot open /run/ssh_cfg_agent/agent.lock: Not a directory\n",
              testing::internal::GetCapturedStderr());
    std::filesystem::remove(runtime_directory);
}

TEST(agent_lock_test, is_taken_once_per_process_and_released) {
    process_manager_reset();
    EXPECT_EQ(0, node_lock_take());
    EXPECT_EQ(0, node_lock_take());
    EXPECT_EQ(std::to_string(getpid()) + "\n", read_file(runtime_lock_file));
    node_lock_release();
    node_lock_release();
    other_agent other;
    testing::internal::CaptureStderr();
    EXPECT_EQ(EBUSY, node_lock_take());
    testing::internal::GetCapturedStderr();
}

TEST(agent_lock_test, is_not_held_by_commands_that_the_agent_has_started) {
    process_manager_reset();
    ASSERT_EQ(0, node_lock_take());
    ASSERT_TRUE(platform_test::run("sleep 5 & echo $! > /tmp/command"));
    node_lock_release();
    EXPECT_EQ(0, node_lock_take());
    EXPECT_TRUE(platform_test::run("kill $(cat /tmp/command)"));
    node_lock_release();
}

TEST(agent_lock_test, a_link_in_its_place_is_not_followed) {
    process_manager_reset();
    std::filesystem::create_directories(runtime_directory);
    std::filesystem::remove(runtime_lock_file);
    write_file("/tmp/elsewhere", "untouched");
    ASSERT_EQ(0, symlink("/tmp/elsewhere", runtime_lock_file));
    testing::internal::CaptureStderr();
    EXPECT_EQ(ELOOP, node_lock_take());
    EXPECT_EQ("ssh_cfg_agent: Cannot open /run/ssh_cfg_agent/agent.lock: Too many levels of symbolic links\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ("untouched", read_file("/tmp/elsewhere"));
    std::filesystem::remove(runtime_lock_file);
}

TEST(node_lock_test, cannot_be_taken_by_anybody_else) {
    struct stat status = {};
    // Also the file that an earlier version has left.
    ASSERT_EQ(0, mkdir(runtime_directory, 0755) == 0 || errno == EEXIST ? 0 : -1);
    write_file(runtime_lock_file, "");
    ASSERT_EQ(0, chmod(runtime_lock_file, 0644));
    ASSERT_EQ(0, node_lock_take());
    ASSERT_EQ(0, stat(runtime_lock_file, &status));
    EXPECT_EQ(0600U, status.st_mode & 07777);
    node_lock_release();
    ASSERT_EQ(0, unlink(runtime_lock_file));
    ASSERT_EQ(0, node_lock_take());
    ASSERT_EQ(0, stat(runtime_lock_file, &status));
    EXPECT_EQ(0600U, status.st_mode & 07777);
    node_lock_release();
}

}  // namespace
