#include "linux/process/recorded_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "platform/shell_commands.h"
#include "unit/linux/platform_test_support.h"

namespace {

using platform_test::read_file;
using platform_test::write_file;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr int failed = 1 << 8;

class recorded_commands_test : public testing::Test {
  protected:
    recorded_commands_test() {
        commands.is_running = [this](const std::string& vrf_name) { return vrf_name == running; };
        record_commands(commands);
    }

    /// The wait status, or -1 for a command that is left to the shell.
    static int take(const char* command) {
        int status = -2;
        errno = EEXIST;
        const bool taken = platform_take_command(command, &status) != 0;
        EXPECT_EQ(errno, EEXIST);
        return taken ? status : -1;
    }

    std::string running = "red";
    recorded_commands commands;
};

TEST(unrecorded_commands_test, are_left_to_the_shell) {
    int status = -2;
    EXPECT_FALSE(commands_are_recorded());
    EXPECT_EQ(platform_take_command("systemctl stop sshd_service_red", &status), 0U);
    EXPECT_EQ(status, -2);
}

TEST_F(recorded_commands_test, the_last_command_for_a_server_counts) {
    EXPECT_TRUE(commands_are_recorded());
    EXPECT_EQ(take("systemctl restart sshd_service_red sshd_service_blue.service"), 0);
    EXPECT_EQ(take("systemctl stop sshd_service_red"), 0);
    EXPECT_EQ(take("systemctl daemon-reload"), 0);
    EXPECT_THAT(commands.servers, ElementsAre(Pair("blue", true), Pair("red", false)));
    EXPECT_THAT(commands.unknown, IsEmpty());
}

TEST_F(recorded_commands_test, rules_are_not_loaded) {
    EXPECT_EQ(take("/sbin/ip netns exec vrf-red /usr/sbin/nft -f /tmp/norvo-ssh/access-list/file.nft"), 0);
    EXPECT_THAT(commands.rules, ElementsAre("red"));
    EXPECT_THAT(commands.servers, IsEmpty());
}

TEST_F(recorded_commands_test, a_server_is_as_its_last_command_left_it_and_otherwise_as_it_is) {
    EXPECT_EQ(take("systemctl is-active sshd_service_red > /tmp/state"), 0);
    EXPECT_EQ(read_file("/tmp/state"), "active\n");
    EXPECT_EQ(take("systemctl is-active sshd_service_blue > /tmp/state"), failed);
    EXPECT_EQ(read_file("/tmp/state"), "inactive\n");
    take("systemctl restart sshd_service_blue");
    EXPECT_EQ(take("systemctl is-active sshd_service_blue > /tmp/state"), 0);
    take("systemctl stop sshd_service_red");
    EXPECT_EQ(take("systemctl is-active sshd_service_red > /tmp/state"), failed);
    EXPECT_EQ(take("systemctl show --property=Id sshd_service_red"), failed);
    EXPECT_EQ(take("systemctl list-units --all sshd_service_red"), failed);
}

TEST_F(recorded_commands_test, files_are_copied) {
    write_file("/tmp/source", "text\n");
    write_file("/tmp/target", "an older and longer text\n");
    EXPECT_EQ(take("cp /tmp/source /tmp/target"), 0);
    EXPECT_EQ(read_file("/tmp/target"), "text\n");
    EXPECT_EQ(take("cp /tmp/missing /tmp/target"), failed);
    EXPECT_EQ(take("cp /tmp/source /tmp/missing/target"), failed);
    EXPECT_EQ(take("cp /tmp/source"), failed);
    EXPECT_THAT(commands.unknown, IsEmpty());
}

TEST_F(recorded_commands_test, a_command_that_nobody_knows_fails_and_is_named) {
    EXPECT_EQ(take("ps -ef"), -1) << "only reads";
    EXPECT_EQ(take("reboot now"), failed);
    EXPECT_EQ(take("systemctl mask sshd"), failed);
    EXPECT_EQ(commands.unknown, "reboot now");
}

}  // namespace
