#include "disturbed_commits.h"

namespace disturbed_commits {
namespace {

/// How many kills are tried for each commit, unless every call is to be tried.
constexpr size_t points_max = 20;

using interrupted_commits_test = disturbed_commit_test;

TEST_P(interrupted_commits_test, killed_anywhere_the_next_start_leads_to_the_same_state) {
    ASSERT_EQ(start_agent(), START_UP_DONE);
    copy_all("", "/before");
    const auto undisturbed = syscall_faults::run({}, carry_out);
    ASSERT_EQ(undisturbed.status, 0);
    const machine_state carried_out = state();
    ASSERT_EQ(syscall_faults::run_undisturbed(die_and_start), 0);
    const machine_state expected = state();
    EXPECT_EQ(differences(carried_out, expected), "") << "by a restart at rest";

    const std::vector<uint32_t> points = syscall_faults::kill_points(undisturbed);
    EXPECT_GT(points.size(), 5U);
    for (const uint32_t call : syscall_faults::chosen_calls(points, points_max)) {
        copy_all("/before", "");
        const auto killed = syscall_faults::run({syscall_faults::fault::kill, call}, carry_out);
        SCOPED_TRACE("killed before call " + std::to_string(call) + ", " + killed.name);
        ASSERT_TRUE(killed.killed);
        ASSERT_EQ(syscall_faults::run_undisturbed(die_and_start), 0);
        ASSERT_EQ(differences(expected, state()), "");
    }
}

INSTANTIATE_TEST_SUITE_P(kinds, interrupted_commits_test, all_commits(),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace disturbed_commits
