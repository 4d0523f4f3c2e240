#include "common/number.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

using std::string_literals::operator""s;

TEST(number_parse, accepts_the_whole_range_of_the_type) {
    EXPECT_EQ(number_parse<uint32_t>("0"), 0U);
    EXPECT_EQ(number_parse<uint32_t>("4294967295"), UINT32_MAX);
    EXPECT_EQ(number_parse<uint32_t>("4294967296"), std::nullopt);
    EXPECT_EQ(number_parse<uint64_t>("18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(number_parse<uint64_t>("18446744073709551616"), std::nullopt);
    EXPECT_EQ(number_parse<int8_t>("-128"), int8_t{-128});
    EXPECT_EQ(number_parse<int8_t>("128"), std::nullopt);
}

TEST(number_parse, checks_the_given_range) {
    EXPECT_EQ(number_parse<unsigned>("1", 1, 10), 1U);
    EXPECT_EQ(number_parse<unsigned>("10", 1, 10), 10U);
    EXPECT_EQ(number_parse<unsigned>("0", 1, 10), std::nullopt);
    EXPECT_EQ(number_parse<unsigned>("11", 1, 10), std::nullopt);
    EXPECT_EQ(number_parse<int>("-1", 0), std::nullopt);
}

TEST(number_parse, accepts_only_decimal_digits) {
    for (const std::string& text :
         {""s, " 1"s, "1 "s, "1\n"s, "+1"s, "-1"s, "-0"s, "0x10"s, "1e3"s, "1.0"s, "a"s, "1a"s, "1\0"s, "\xd9\xa1"s}) {
        EXPECT_EQ(number_parse<unsigned>(text), std::nullopt) << testing::PrintToString(text);
    }
    EXPECT_EQ(number_parse<unsigned>("007"), 7U);
    EXPECT_EQ(number_parse<unsigned>("010"), 10U);
}

TEST(number_parse, reads_only_its_text) {
    EXPECT_EQ(number_parse<unsigned>(std::string_view("1234").substr(1, 2)), 23U);
}

}  // namespace
