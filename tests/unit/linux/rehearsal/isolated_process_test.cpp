#include "linux/rehearsal/isolated_process.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

namespace isolated_process_test {
namespace {

constexpr std::chrono::seconds limit{30};

/// Waits until the process sends a byte or closes its connection.
void wait_for_word(const isolated_process& process) {
    char word = 0;
    recv(process.connection(), &word, 1, 0);
}

/// Runs `work` in an isolated process and returns the signal of its crash.
int crash_of(const std::function<void()>& work) {
    isolated_process process([] { return std::string(); },
                             [&work](int, const std::string& problem) {
                                 if (problem.empty()) {
                                     work();
                                 }
                             });
    EXPECT_EQ(process.status(), PLATFORM_OK);
    wait_for_word(process);
    return process.wait_for_crash(limit);
}

/// The sanitizers' handlers would end the process differently.
void use_default_action(int signal) {
    std::signal(signal, SIG_DFL);
}

void read_forbidden_memory() {
    use_default_action(SIGSEGV);
    const void* page = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    _exit(*static_cast<const volatile char*>(page));
}

void abort_itself() {
    use_default_action(SIGABRT);
    use_default_action(SIGSEGV);
    std::abort();
}

pid_t only_child_of(pid_t parent) {
    const std::string process = "/proc/" + std::to_string(parent);
    std::ifstream children(process + "/task/" + std::to_string(parent) + "/children");
    pid_t child = 0;
    children >> child;
    return child;
}

TEST(isolated_process_test, an_error_of_the_program_is_a_crash) {
    EXPECT_EQ(crash_of(read_forbidden_memory), SIGSEGV);
    EXPECT_NE(crash_of(abort_itself), 0);
}

TEST(isolated_process_test, an_end_of_its_own_is_none) {
    EXPECT_EQ(crash_of([] {}), 0);
    EXPECT_EQ(crash_of([] { _exit(3); }), 0);
    EXPECT_EQ(crash_of([] { _exit(128 + SIGSEGV); }), 0);
}

TEST(isolated_process_test, a_kill_from_outside_is_none) {
    isolated_process process([] { return std::string(); },
                             [](int connection, const std::string&) {
                                 send(connection, "x", 1, 0);
                                 pause();
                             });
    wait_for_word(process);
    const pid_t isolated = only_child_of(only_child_of(getpid()));
    ASSERT_GT(isolated, 1);
    ASSERT_EQ(kill(isolated, SIGKILL), 0);
    EXPECT_EQ(process.wait_for_crash(limit), 0);
}

TEST(isolated_process_test, one_that_goes_on_has_not_crashed) {
    isolated_process process([] { return std::string(); }, [](int, const std::string&) { pause(); });
    EXPECT_EQ(process.wait_for_crash(std::chrono::milliseconds(1)), 0);
}

}  // namespace
}  // namespace isolated_process_test
