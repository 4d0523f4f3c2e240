#include "openssh/run_programs.h"

#include <gtest/gtest.h>

#include "scratch.h"

using namespace openssh;
using openssh_test::scratch_directory;
using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(launcher_run_programs, collects_status_output_and_errors_of_each) {
    const scratch_directory scratch;
    const std::string first = scratch.write_program("first", "echo \"one $1\"; echo bad >&2; exit 3\n");
    const std::string second = scratch.write_program("second", "cat; echo two\n");
    const auto results = run_programs({{first, "a b;c"}, {second}}, seconds(20));
    ASSERT_EQ(results.size(), 2U);
    EXPECT_EQ(results[0].status, 3);
    EXPECT_EQ(results[0].output, "one a b;c\n");
    EXPECT_EQ(results[0].errors, "bad\n");
    EXPECT_EQ(results[0].failure, "");
    EXPECT_EQ(results[1].status, 0);
    EXPECT_EQ(results[1].output, "two\n");
}

TEST(launcher_run_programs, reports_why_a_program_did_not_start) {
    const auto results = run_programs({{"/nonexistent/program"}}, seconds(20));
    EXPECT_EQ(results[0].status, -1);
    EXPECT_EQ(results[0].failure, "cannot be started: No such file or directory");
}

TEST(launcher_run_programs, kills_programs_that_do_not_end_in_time) {
    const scratch_directory scratch;
    const std::string sleeper = scratch.write_program("sleeper", "echo early; exec sleep 100\n");
    const auto start = std::chrono::steady_clock::now();
    const auto results = run_programs({{sleeper}}, milliseconds(300));
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(20));
    EXPECT_EQ(results[0].status, -1);
    EXPECT_EQ(results[0].failure, "timed out and was killed");
    EXPECT_EQ(results[0].output, "early\n");
}

TEST(launcher_run_programs, reports_a_signal) {
    const scratch_directory scratch;
    const auto results = run_programs({{scratch.write_program("killed", "kill -9 $$\n")}}, seconds(20));
    EXPECT_EQ(results[0].status, -1);
    EXPECT_EQ(results[0].failure, "was killed by signal 9");
}

TEST(launcher_run_programs, keeps_a_limited_part_of_a_flood) {
    const scratch_directory scratch;
    const std::string flood = scratch.write_program("flood", "head -c 1000000 /dev/zero; echo end >&2\n");
    const auto results = run_programs({{flood}}, seconds(20));
    EXPECT_EQ(results[0].status, 0);
    EXPECT_EQ(results[0].output.size(), most_program_output);
    EXPECT_EQ(results[0].errors, "end\n");
}
