#include "linux/process/child_output.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

TEST(child_output, is_what_the_child_writes) {
    std::string output;
    EXPECT_EQ(child_output([](int fd) { return write(fd, "words", 5) == 5 ? 0 : 1; }, milliseconds(10000), output),
              PLATFORM_OK);
    EXPECT_EQ(output, "words");
}

TEST(child_output, of_a_failed_child_is_empty) {
    std::string output = "before";
    EXPECT_EQ(child_output([](int fd) { return write(fd, "words", 5) == 5 ? 3 : 0; }, milliseconds(10000), output),
              EIO);
    EXPECT_EQ(child_output([](int) -> int { throw std::runtime_error("broken"); }, milliseconds(10000), output), EIO);
    EXPECT_EQ(child_output([](int) { return raise(SIGKILL); }, milliseconds(10000), output), EIO);
    EXPECT_EQ(output, "before");
}

TEST(child_output, is_not_awaited_beyond_the_time_limit) {
    std::string output = "before";
    const steady::time_point start = steady::now();
    const auto hang = [](int fd) { return execl("/bin/sh", "sh", "-c", "sleep 300 & wait", nullptr) + fd; };
    EXPECT_EQ(child_output(hang, milliseconds(200), output), ETIMEDOUT);
    EXPECT_LT(steady::now() - start, milliseconds(20000));
    EXPECT_EQ(output, "before");
}

}  // namespace
