#include "ssh_cfg_ctl/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(ctl_command_line, splits_options_and_call) {
    const ctl_command_line line =
        ctl_parse_command_line({"--json", "--progress", "--timeout", "7", "--socket=/s", "get", "/a"});
    EXPECT_EQ(line.action, ctl_action::call);
    EXPECT_TRUE(line.json);
    EXPECT_TRUE(line.progress);
    EXPECT_EQ(line.timeout, 7U);
    EXPECT_EQ(line.socket_path, "/s");
    EXPECT_THAT(line.call, ElementsAre("get", "/a"));
}

TEST(ctl_command_line, defaults) {
    const ctl_command_line line = ctl_parse_command_line({"status"});
    EXPECT_FALSE(line.json);
    EXPECT_FALSE(line.progress);
    EXPECT_EQ(line.timeout, 600U);
    EXPECT_EQ(line.socket_path, "/run/ssh_cfg_agent/control.sock");
}

TEST(ctl_command_line, options_may_follow_the_call) {
    const ctl_command_line line = ctl_parse_command_line({"get", "--json", "/a", "--timeout=7", "--socket", "/s"});
    EXPECT_TRUE(line.json);
    EXPECT_EQ(line.timeout, 7U);
    EXPECT_EQ(line.socket_path, "/s");
    EXPECT_THAT(line.call, ElementsAre("get", "/a"));
    EXPECT_EQ(ctl_parse_command_line({"set", "--help"}).action, ctl_action::help);
    EXPECT_EQ(ctl_parse_command_line({"status", "--timeout", "0"}).action, ctl_action::wrong);
}

TEST(ctl_command_line, an_option_of_the_call_belongs_to_the_call) {
    const ctl_command_line line = ctl_parse_command_line({"--timeout", "7", "reload", "--timeout", "9", "--json"});
    EXPECT_THAT(line.call, ElementsAre("reload", "--timeout", "9"));
    EXPECT_EQ(line.timeout, 7U);
    EXPECT_TRUE(line.json);
}

TEST(ctl_command_line, arguments_after_the_call_belong_to_the_call) {
    EXPECT_THAT(ctl_parse_command_line({"set", "/a", "--", "--json"}).call, ElementsAre("set", "/a", "--json"));
    EXPECT_THAT(ctl_parse_command_line({"set", "/a", "-5"}).call, ElementsAre("set", "/a", "-5"));
    EXPECT_THAT(ctl_parse_command_line({"load", "--check", "-"}).call, ElementsAre("load", "--check", "-"));
    EXPECT_THAT(ctl_parse_command_line({"--", "--json"}).call, ElementsAre("--json"));
}

TEST(ctl_command_line, help_and_version) {
    EXPECT_EQ(ctl_parse_command_line({"--help"}).action, ctl_action::help);
    EXPECT_EQ(ctl_parse_command_line({"-h"}).action, ctl_action::help);
    EXPECT_EQ(ctl_parse_command_line({}).action, ctl_action::help);
    EXPECT_EQ(ctl_parse_command_line({"--version"}).action, ctl_action::version);
}

TEST(ctl_command_line, reports_errors) {
    EXPECT_THAT(ctl_parse_command_line({"--jsn", "status"}).error, HasSubstr("unknown option '--jsn'"));
    EXPECT_THAT(ctl_parse_command_line({"--socket"}).error, HasSubstr("requires a value"));
    EXPECT_FALSE(ctl_parse_command_line({"--json"}).error.empty());
    for (const char* seconds : {"0", "86401", "x", "", "1x", "-1", "99999999999999999999"}) {
        EXPECT_THAT(ctl_parse_command_line({"--timeout", seconds, "status"}).error,
                    HasSubstr("expected 1 to 86400 seconds"));
    }
}

}  // namespace
