#include "openssh/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace openssh;
using testing::ElementsAre;

TEST(launcher_text, shows_unprintable_bytes_as_numbers_and_truncates_long_text) {
    EXPECT_EQ(shown(std::string_view("a\0b\n\xff~", 6)), "a\\x00b\\x0a\\xff~");
    EXPECT_EQ(shown(std::string(201, 'x')), std::string(200, 'x') + "...");
    EXPECT_EQ(shown(std::string(200, 'x')), std::string(200, 'x'));
}

TEST(launcher_text, compares_ascii_letters_in_any_case) {
    EXPECT_TRUE(equal_ignoring_case("HostKey", "hOSTkEY"));
    EXPECT_FALSE(equal_ignoring_case("HostKey", "HostKeys"));
    EXPECT_FALSE(equal_ignoring_case("@", "`"));
    EXPECT_EQ(lower_case("HostKey@[\xc3\x84"), "hostkey@[\xc3\x84");
}

TEST(launcher_text, trims_and_splits) {
    EXPECT_EQ(trimmed(" \t a b\f\r"), "a b");
    EXPECT_EQ(trimmed(" \t"), "");
    EXPECT_THAT(split(",,a,,b,", ","), ElementsAre("a", "b"));
    EXPECT_THAT(split("", ","), ElementsAre());
    EXPECT_EQ(joined({"a", "b"}), "a,b");
    EXPECT_EQ(joined({}), "");
}
