#include "common/nearest.h"

#include <gtest/gtest.h>

#include <string>

namespace {

const std::vector<std::string_view> calls = {"set", "delete", "load", "get", "list", "dump", "show", "status"};

TEST(nearest_word, finds_the_intended_word) {
    EXPECT_EQ(nearest_word("lod", calls), "load");
    EXPECT_EQ(nearest_word("laod", calls), "load");
    EXPECT_EQ(nearest_word("stauts", calls), "status");
    EXPECT_EQ(nearest_word("delte", calls), "delete");
    EXPECT_EQ(nearest_word("sett", calls), "set");
    EXPECT_EQ(nearest_word("dump", calls), "dump");
}

TEST(nearest_word, suggests_nothing_too_different) {
    EXPECT_EQ(nearest_word("xyzzy", calls), "");
    EXPECT_EQ(nearest_word("", calls), "");
    EXPECT_EQ(nearest_word("q", calls), "");
    EXPECT_EQ(nearest_word("get", {}), "");
}

TEST(nearest_word, a_huge_word_takes_no_time) {
    EXPECT_EQ(nearest_word(std::string(1'000'000, 'x'), calls), "");
}

}  // namespace
