#include "ssh_cfg_ctl/nearest.h"

#include <gtest/gtest.h>

#include <string>

namespace {

const std::vector<std::string_view> calls = {"set", "delete", "load", "get", "list", "dump", "show", "status"};

TEST(ctl_nearest, finds_the_intended_word) {
    EXPECT_EQ(ctl_nearest("lod", calls), "load");
    EXPECT_EQ(ctl_nearest("laod", calls), "load");
    EXPECT_EQ(ctl_nearest("stauts", calls), "status");
    EXPECT_EQ(ctl_nearest("delte", calls), "delete");
    EXPECT_EQ(ctl_nearest("sett", calls), "set");
    EXPECT_EQ(ctl_nearest("dump", calls), "dump");
}

TEST(ctl_nearest, suggests_nothing_too_different) {
    EXPECT_EQ(ctl_nearest("xyzzy", calls), "");
    EXPECT_EQ(ctl_nearest("", calls), "");
    EXPECT_EQ(ctl_nearest("q", calls), "");
    EXPECT_EQ(ctl_nearest("get", {}), "");
}

TEST(ctl_nearest, a_huge_word_takes_no_time) {
    EXPECT_EQ(ctl_nearest(std::string(1'000'000, 'x'), calls), "");
}

}  // namespace
