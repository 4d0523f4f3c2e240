#include "call_faults.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "core/command_output.h"
#include "files.h"

namespace {

using call_faults::always;
using call_faults::moment;
using call_faults::once;
using testing::ElementsAre;

class call_faults_test : public testing::Test {
  protected:
    call_faults_test() { call_faults::clear(); }
    ~call_faults_test() override { call_faults::clear(); }
};

/// Writes a file and checks every call; returns 0 or the error.
int write_carefully(const char* path, const char* text) {
    FILE* file = fopen(path, "w");
    if (file == nullptr) {
        return errno;
    }
    const bool written = fputs(text, file) >= 0 && fflush(file) == 0;
    const int error = errno;
    if (fclose(file) != 0) {
        return errno;
    }
    return written ? 0 : error;
}

TEST_F(call_faults_test, nothing_fails_without_request) {
    EXPECT_EQ(write_carefully("/tmp/file", "text"), 0);
    EXPECT_EQ(read_file("/tmp/file"), "text");
}

TEST_F(call_faults_test, a_call_fails_once_or_always_or_later) {
    write_file("/tmp/a", "");
    call_faults::fail_call("rename", EIO, once);
    EXPECT_EQ(rename("/tmp/a", "/tmp/b"), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(path_exists("/tmp/a"));
    EXPECT_EQ(rename("/tmp/a", "/tmp/b"), 0);
    call_faults::fail_call("mkdir", ENOSPC, always, 2);
    EXPECT_EQ(mkdir("/tmp/1", 0755), 0);
    EXPECT_EQ(mkdir("/tmp/2", 0755), -1);
    EXPECT_EQ(mkdir("/tmp/3", 0755), -1);
    EXPECT_EQ(errno, ENOSPC);
    call_faults::clear();
    EXPECT_EQ(mkdir("/tmp/2", 0755), 0);
}

TEST_F(call_faults_test, a_failure_may_be_limited_to_one_file) {
    call_faults::fail_call("fopen", EMFILE, always, 1, "/tmp/bad");
    EXPECT_EQ(write_carefully("/tmp/good", "text"), 0);
    EXPECT_EQ(write_carefully("/tmp/bad", "text"), EMFILE);
    call_faults::fail_call("stdio_write", EIO, always, 1, "/tmp/good");
    EXPECT_EQ(write_carefully("/tmp/good", "text"), EIO);
    EXPECT_EQ(write_carefully("/tmp/other", "text"), 0);
}

// What a stream could not write is lost, so a program that ignores the failure leaves a short file.
TEST_F(call_faults_test, a_failed_flush_or_close_loses_what_was_buffered) {
    call_faults::fail_call("fflush", ENOSPC, once);
    EXPECT_EQ(write_carefully("/tmp/file", "text"), ENOSPC);
    EXPECT_EQ(read_file("/tmp/file"), "");
    call_faults::fail_call("fclose", EIO, once);
    FILE* file = fopen("/tmp/file", "w");
    ASSERT_NE(file, nullptr);
    fprintf(file, "%s-%d", "text", 1);
    EXPECT_EQ(fclose(file), EOF);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(read_file("/tmp/file"), "");
}

TEST_F(call_faults_test, a_failed_stream_keeps_its_error) {
    FILE* file = fopen("/tmp/file", "w+");
    ASSERT_NE(file, nullptr);
    call_faults::fail_call("stdio_write", EIO, once);
    fprintf(file, "%d", 5);
    EXPECT_NE(ferror(file), 0);
    clearerr(file);
    call_faults::fail_call("stdio_read", EIO, once);
    char line[8];
    EXPECT_EQ(fgets(line, sizeof line, file), nullptr);
    EXPECT_EQ(errno, EIO);
    EXPECT_NE(ferror(file), 0);
    EXPECT_EQ(feof(file), 0);
    fclose(file);
}

TEST_F(call_faults_test, a_call_may_be_short) {
    call_faults::cut_call("write", 3, once);
    const int fd = open("/tmp/file", O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    EXPECT_EQ(write(fd, "abcdef", 6), 3);
    EXPECT_EQ(write(fd, "def", 3), 3);
    EXPECT_EQ(read_file("/tmp/file"), "abcdef");
    close(fd);
    call_faults::cut_call("stdio_write", 2, once);
    EXPECT_EQ(write_carefully("/tmp/stream", "text"), ENOSPC);
    EXPECT_EQ(read_file("/tmp/stream"), "te");
}

TEST_F(call_faults_test, a_failed_close_closes_nevertheless) {
    call_faults::fail_call("close", EIO, once);
    const int fd = open("/tmp/file", O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(call_faults_test, memory_runs_out) {
    call_faults::fail_call("allocation", ENOMEM, once);
    EXPECT_EQ(new (std::nothrow) int, nullptr);
    call_faults::fail_call("strdup", ENOMEM, once);
    char* volatile text = strdup("text");
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(errno, ENOMEM);
    void* volatile memory = malloc(10);
    EXPECT_NE(memory, nullptr);
    free(memory);
}

TEST_F(call_faults_test, commands_can_fail_and_be_answered) {
    call_faults::fail_call("command", EAGAIN, always, 1, "systemctl");
    EXPECT_EQ(run_shell_command("systemctl restart x", systemctl_limit), -1);
    EXPECT_EQ(errno, EAGAIN);
    errno = 0;
    EXPECT_EQ(read_shell_command("systemctl status", systemctl_limit), nullptr);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(run_shell_command("true", listing_limit), 0);
    call_faults::answer_command("nft", 256, EIO, once);
    EXPECT_EQ(run_shell_command("nft -f x", nft_limit), 256);
    EXPECT_EQ(errno, EIO);
}

TEST_F(call_faults_test, commands_can_have_a_shorter_time_limit) {
    call_faults::limit_commands(50);
    EXPECT_EQ(run_shell_command("sleep 5", nft_limit), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(run_shell_command("true", nft_limit), 0);
}

TEST_F(call_faults_test, commands_are_observed) {
    std::vector<std::string> seen;
    call_faults::observe_commands([&seen](const std::string& command) { seen.push_back(command); });
    EXPECT_EQ(run_shell_command("true", listing_limit), 0);
    call_faults::observe_commands(nullptr);
    EXPECT_EQ(run_shell_command("false", listing_limit), 256);
    EXPECT_THAT(seen, ElementsAre("true"));
}

TEST_F(call_faults_test, sleeping_takes_no_time_on_request) {
    call_faults::skip_sleeping();
    EXPECT_EQ(sleep(1000), 0u);
    EXPECT_EQ(usleep(900000), 0);
    EXPECT_EQ(call_faults::slept_milliseconds(), 1000900u);
    EXPECT_EQ(call_faults::count_calls("sleeping"), 2u);
}

TEST_F(call_faults_test, inotify_calls_fail) {
    call_faults::fail_call("inotify_init1", EMFILE, once);
    EXPECT_EQ(inotify_init1(0), -1);
    const int fd = inotify_init1(IN_CLOEXEC);
    call_faults::fail_call("inotify_add_watch", ENOSPC, once);
    EXPECT_EQ(inotify_add_watch(fd, "/tmp", IN_DELETE), -1);
    EXPECT_EQ(errno, ENOSPC);
    close(fd);
}

TEST_F(call_faults_test, calls_are_counted_and_recorded) {
    call_faults::start_recording();
    EXPECT_EQ(write_carefully("/tmp/new", "text"), 0);
    EXPECT_EQ(rename("/tmp/new", "/tmp/file"), 0);
    EXPECT_EQ(call_faults::count_calls("rename"), 1u);
    EXPECT_EQ(call_faults::count_calls("stdio_write"), 1u);
    EXPECT_GE(call_faults::count_changes(), 4u);
    EXPECT_THAT(call_faults::recorded_calls(),
                ElementsAre("fopen(/tmp/new)", testing::AnyOf("fputs(/tmp/new)", "fwrite(/tmp/new)"),
                            "fflush(/tmp/new)", "fclose(/tmp/new)", "rename(/tmp/file)"));
}

using call_faults_death = call_faults_test;

TEST_F(call_faults_death, a_misspelt_call_is_reported) {
    EXPECT_DEATH(call_faults::fail_call("renmae", EIO), "no call or group \"renmae\"");
}

TEST_F(call_faults_test, work_is_killed_at_the_requested_call) {
    const auto work = [] {
        mkdir("/tmp/1", 0755);
        mkdir("/tmp/2", 0755);
    };
    EXPECT_TRUE(call_faults::run_killed(1, moment::before, work));
    EXPECT_FALSE(path_exists("/tmp/1"));
    EXPECT_TRUE(call_faults::run_killed(1, moment::after, work));
    EXPECT_TRUE(path_exists("/tmp/1"));
    EXPECT_FALSE(path_exists("/tmp/2"));
    EXPECT_FALSE(call_faults::run_killed(3, moment::before, work));
    EXPECT_TRUE(path_exists("/tmp/2"));
}

// A replacement through a temporary file is the old or the new one whenever the process is killed.
TEST_F(call_faults_test, every_kill_point_is_visited) {
    std::vector<std::string> outcomes;
    const uint32_t points =
        call_faults::for_each_kill_point([] { write_file("/tmp/file", "old"); },
                                         [] {
                                             write_carefully("/tmp/new", "new");
                                             rename("/tmp/new", "/tmp/file");
                                         },
                                         [&outcomes] { outcomes.push_back(read_file("/tmp/file")); });
    EXPECT_EQ(points, 5u);
    ASSERT_EQ(outcomes.size(), 11u);
    for (size_t i = 0; i < outcomes.size(); i++) {
        EXPECT_EQ(outcomes[i], i < 9 ? "old" : "new") << i;
    }
}

}  // namespace
