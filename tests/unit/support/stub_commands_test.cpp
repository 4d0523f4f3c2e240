#include "stub_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>

#include "files.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

int run(const std::string& command) {
    const int status = system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string output_of(const std::string& command) {
    run(command + " > /tmp/output");
    return read_file("/tmp/output");
}

TEST(stub_commands, log_their_command_lines) {
    EXPECT_EQ(run("systemctl daemon-reload"), 0);
    EXPECT_EQ(run("/sbin/ip netns exec vrf-red /usr/sbin/nft -f '/tmp/a b.nft'"), 0);
    EXPECT_EQ(run("/usr/sbin/nft -c"), 0);
    EXPECT_THAT(stub_commands::log(), ElementsAre("systemctl daemon-reload",
                                                  "ip netns exec vrf-red /usr/sbin/nft -f /tmp/a b.nft", "nft -c"));
    EXPECT_THAT(stub_commands::log_of("ip"), ElementsAre("ip netns exec vrf-red /usr/sbin/nft -f /tmp/a b.nft"));
    stub_commands::clear_log();
    EXPECT_THAT(stub_commands::log(), IsEmpty());
}

TEST(stub_commands, print_nothing_and_succeed_by_default) {
    EXPECT_EQ(output_of("systemctl is-active sshd_service_red"), "");
}

TEST(stub_commands, fail_as_often_as_requested) {
    stub_commands::fail("systemctl restart", 3, 2);
    EXPECT_EQ(run("systemctl restart sshd_service_red"), 3);
    EXPECT_EQ(run("systemctl stop sshd_service_red"), 0);
    EXPECT_EQ(run("systemctl restart sshd_service_red"), 3);
    EXPECT_EQ(run("systemctl restart sshd_service_red"), 0);
}

TEST(stub_commands, fail_from_a_later_call_on) {
    stub_commands::fail("systemctl", 1, stub_commands::always, 3);
    EXPECT_EQ(run("systemctl a"), 0);
    EXPECT_EQ(run("systemctl a"), 0);
    EXPECT_EQ(run("systemctl a"), 1);
    EXPECT_EQ(run("systemctl a"), 1);
}

// "systemctl restart sshd_service_r" does not match the unit of "red".
TEST(stub_commands, are_matched_by_whole_words) {
    stub_commands::fail("systemctl restart sshd_service_r", 1);
    EXPECT_EQ(run("systemctl restart sshd_service_red"), 0);
    EXPECT_EQ(run("systemctl restart sshd_service_r"), 1);
}

TEST(stub_commands, die_by_a_signal) {
    stub_commands::fail("nft", -9);
    EXPECT_EQ(run("exec nft -f x"), -9);
}

TEST(stub_commands, a_later_rule_overrides_an_earlier_one_partly) {
    stub_commands::fail("systemctl", 4);
    stub_commands::set_output("systemctl is-active", "active\n");
    stub_commands::set_output("systemctl is-active sshd_service_blue", "inactive\n", 1);
    EXPECT_EQ(output_of("systemctl is-active sshd_service_blue"), "inactive\n");
    EXPECT_EQ(output_of("systemctl is-active sshd_service_blue"), "active\n");
    EXPECT_EQ(run("systemctl is-active sshd_service_blue > /dev/null"), 4);
    stub_commands::clear_rules();
    EXPECT_EQ(output_of("systemctl is-active sshd_service_blue"), "");
}

TEST(stub_commands, run_a_hook) {
    stub_commands::set_hook("nft -f", "echo \"$STUB_COMMAND_LINE\" > /tmp/seen");
    EXPECT_EQ(run("nft -f /tmp/rules"), 0);
    EXPECT_EQ(read_file("/tmp/seen"), "nft -f /tmp/rules\n");
}

TEST(stub_commands, a_failed_hook_is_a_failed_command) {
    stub_commands::set_hook("nft", "false");
    EXPECT_EQ(run("nft"), 1);
}

TEST(stub_commands, take_as_long_as_requested) {
    stub_commands::set_delay("nft", 60, 1);
    const time_t begin = time(nullptr);
    struct timespec before = {};
    struct timespec after = {};
    clock_gettime(CLOCK_MONOTONIC, &before);
    run("nft");
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_GE((after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000, 60);
    EXPECT_LT(time(nullptr) - begin, 30);
}

TEST(stub_commands, further_commands_can_be_installed) {
    stub_commands::install_command("ps");
    stub_commands::set_output("ps -ef", "root 12 1 /pkg/bin/ssh_exec.sh\n");
    EXPECT_EQ(output_of("ps -ef | awk '{print $2}'"), "12\n");
    stub_commands::install_command("/pkg/bin/sshd");
    EXPECT_EQ(run("/pkg/bin/sshd -t"), 0);
    EXPECT_THAT(stub_commands::log_of("sshd"), ElementsAre("sshd -t"));
}

TEST(stub_commands, can_be_missing) {
    stub_commands::remove_command("nft");
    EXPECT_EQ(run("nft 2>/dev/null"), 127);
}

TEST(stub_commands, concurrent_stubs_do_not_mix_their_lines) {
    run("for i in 1 2 3 4 5 6 7 8; do systemctl $i aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa & done; wait");
    EXPECT_EQ(stub_commands::log().size(), 8u);
    for (const std::string& line : stub_commands::log()) {
        EXPECT_THAT(line, testing::MatchesRegex("systemctl [1-8] a{39}"));
    }
}

}  // namespace
