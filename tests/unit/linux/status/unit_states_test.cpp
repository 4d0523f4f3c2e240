#include "linux/status/unit_states.h"

#include <gtest/gtest.h>

namespace {

TEST(server_unit_states, are_parsed_by_vrf) {
    const server_unit_states units = server_unit_states_parse(
        "Id=sshd_service_red.service\nLoadState=loaded\nActiveState=active\nSubState=running\nMainPID=4711\n"
        "Result=success\n"
        "\n"
        "MainPID=0\nResult=exit-code\nId=sshd_service_a.b-c.service\nLoadState=loaded\nActiveState=failed\nSubState=failed\n"
        "\n"
        "Id=ssh.service\nActiveState=active\n");
    ASSERT_EQ(units.size(), 2U);
    const server_unit_state& red = units.at("red");
    EXPECT_EQ(red.load, "loaded");
    EXPECT_EQ(red.active, "active");
    EXPECT_EQ(red.sub, "running");
    EXPECT_EQ(red.result, "success");
    EXPECT_EQ(red.main_process, 4711);
    EXPECT_TRUE(server_unit_runs(red));
    const server_unit_state& other = units.at("a.b-c");
    EXPECT_EQ(other.result, "exit-code");
    EXPECT_EQ(other.main_process, 0);
    EXPECT_FALSE(server_unit_runs(other));
}

TEST(server_unit_states, a_unit_that_keeps_restarting_is_not_running) {
    const server_unit_states units =
        server_unit_states_parse("Id=sshd_service_red.service\nActiveState=activating\nSubState=auto-restart");
    EXPECT_FALSE(server_unit_runs(units.at("red")));
}

TEST(server_unit_states, without_output_there_are_none) {
    EXPECT_TRUE(server_unit_states_parse("").empty());
    EXPECT_TRUE(server_unit_states_parse("\n\nActiveState=active\n").empty());
    server_unit_states units;
    EXPECT_EQ(server_unit_states_query({}, units), PLATFORM_OK);
}

TEST(server_unit_states, are_named_after_the_vrfs) {
    EXPECT_EQ(server_unit_name("a.b"), "sshd_service_a.b.service");
}

}  // namespace
