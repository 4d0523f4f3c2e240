#include "vrf/unit_states.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "../agent_test.h"
#include "call_faults.h"

namespace {

using unit_states_test = agent_test;

TEST_F(unit_states_test, are_read_for_all_units_with_one_command) {
    stub_commands::set_output("systemctl show",
                              "Id=sshd_service_red.service\nActiveState=active\nMainPID=41\n"
                              "ExecMainStartTimestampMonotonic=1234567\n\n"
                              "MainPID=0\nId=sshd_service_a.service.service\nActiveState=failed\n");
    std::vector<unit_state> units;
    ASSERT_EQ(read_unit_states(&units), 0);
    ASSERT_EQ(units.size(), 2u);
    EXPECT_EQ(units[0].vrf_name, "red");
    EXPECT_EQ(units[0].main_process, 41);
    EXPECT_EQ(units[0].started, 1234567u);
    EXPECT_EQ(units[1].vrf_name, "a.service");
    EXPECT_EQ(units[1].active_state, "failed");
    EXPECT_EQ(units[1].started, UINT64_MAX);
    EXPECT_EQ(stub_commands::log_of("systemctl show").size(), 1u);
}

TEST_F(unit_states_test, are_listed_by_name_and_state) {
    stub_commands::set_output("systemctl list-units",
                              "sshd_service_red.service loaded active     running NorvoSSH sshd service\n"
                              "sshd_service_a.service.service not-found inactive dead sshd_service_a.service.service\n"
                              "nonsense\n");
    std::vector<unit_state> units = {{"old", "active", 1, 1}};
    ASSERT_EQ(read_active_states(&units, "sshd_service_red.service sshd_service_a.service.service"), 0);
    ASSERT_EQ(units.size(), 2u);
    EXPECT_EQ(units[0].vrf_name, "red");
    EXPECT_EQ(units[0].active_state, "active");
    EXPECT_EQ(units[0].started, UINT64_MAX);
    EXPECT_EQ(units[1].vrf_name, "a.service");
    EXPECT_EQ(units[1].active_state, "inactive");
    EXPECT_THAT(stub_commands::log(), testing::ElementsAre("systemctl list-units --all --full --plain --no-legend "
                                                           "sshd_service_red.service sshd_service_a.service.service"));
}

TEST_F(unit_states_test, are_empty_without_units) {
    std::vector<unit_state> units = {{"old", "active", 1, 1}};
    EXPECT_EQ(read_unit_states(&units), 0);
    EXPECT_TRUE(units.empty());
}

TEST_F(unit_states_test, fail_with_the_command) {
    std::vector<unit_state> units;
    stub_commands::fail("systemctl show", 1);
    EXPECT_EQ(read_unit_states(&units), -1);
    EXPECT_EQ(errno, EIO);
    stub_commands::clear_rules();
    call_faults::limit_commands(100);
    stub_commands::set_delay("systemctl show", 60000);
    EXPECT_EQ(read_unit_states(&units), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(unit_states_test, distinguish_running_stopped_and_changing) {
    struct {
        const char* state;
        bool running;
        bool stopped;
    } constexpr states[] = {
        {"active", true, false},        {"reloading", true, false}, {"activating", false, false},
        {"deactivating", false, false}, {"inactive", false, true},  {"failed", false, true},
    };
    for (const auto& row : states) {
        const unit_state unit = {"red", row.state, 0, 0};
        EXPECT_EQ(is_running(unit), row.running) << row.state;
        EXPECT_EQ(is_stopped(unit), row.stopped) << row.state;
    }
}

}  // namespace
