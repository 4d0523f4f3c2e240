#include "openssh/reporter/line_pattern.h"

#include <gtest/gtest.h>

using namespace openssh;

TEST(line_pattern, extracts_the_texts_in_the_holes) {
    captures found;
    ASSERT_TRUE(match_pattern("Connecting to % [%] port ~", "Connecting to host [::1] port 22.", found));
    EXPECT_EQ(found.count, 2U);
    EXPECT_EQ(found.pieces[0], "host");
    EXPECT_EQ(found.pieces[1], "::1");
}

TEST(line_pattern, matches_only_the_whole_text) {
    captures found;
    EXPECT_TRUE(match_pattern("mode 1", "mode 1", found));
    EXPECT_FALSE(match_pattern("mode 1", "mode 12", found));
    EXPECT_FALSE(match_pattern("mode 1", "mode ", found));
    EXPECT_TRUE(match_pattern("kex: algorithm: %", "kex: algorithm: a b", found));
    EXPECT_EQ(found.pieces[0], "a b");
    EXPECT_FALSE(match_pattern("session % alloc /dev/pts/%", "session 0 alloc failed", found));
}

TEST(line_pattern, has_no_empty_holes) {
    captures found;
    EXPECT_FALSE(match_pattern("kex: algorithm: %", "kex: algorithm: ", found));
    EXPECT_FALSE(match_pattern("user % in", "user  in", found));
    EXPECT_FALSE(match_pattern("\"%\"", "\"\"", found));
}

TEST(line_pattern, matches_any_rest) {
    captures found;
    EXPECT_TRUE(match_pattern("~", "", found));
    EXPECT_TRUE(match_pattern("rekeying out~", "rekeying out, input 1", found));
    EXPECT_FALSE(match_pattern("rekeying out~", "rekeying in", found));
}

TEST(line_pattern, numbers_are_whole) {
    unsigned long long number = 5;
    EXPECT_TRUE(number_of("18446744073709551615", number));
    EXPECT_EQ(number, UINT64_MAX);
    EXPECT_FALSE(number_of("18446744073709551616", number));
    EXPECT_FALSE(number_of("", number));
    EXPECT_FALSE(number_of("-1", number));
    EXPECT_FALSE(number_of("1 ", number));
}
