#include "core/text.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace {

TEST(text_test, formats_into_the_buffer) {
    char buffer[16];
    EXPECT_EQ(format_text(buffer, sizeof buffer, "%s-%d", "vrf", 7), 5u);
    EXPECT_STREQ(buffer, "vrf-7");
}

TEST(text_test, truncates_formatted_text_at_the_end_of_the_buffer) {
    char buffer[8];
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(format_text(buffer, 5, "%s", "123456"), 4u);
    EXPECT_STREQ(buffer, "1234");
    EXPECT_EQ(buffer[5], 'x');
    EXPECT_EQ(format_text(buffer, 1, "%s", "123456"), 0u);
    EXPECT_STREQ(buffer, "");
}

TEST(text_test, fills_a_buffer_to_its_last_byte) {
    char buffer[5];
    EXPECT_EQ(format_text(buffer, sizeof buffer, "%s", "1234"), 4u);
    EXPECT_STREQ(buffer, "1234");
}

TEST(text_test, formatting_leaves_errno_alone) {
    char buffer[4];
    errno = EBUSY;
    format_text(buffer, sizeof buffer, "%s", "123456");
    EXPECT_EQ(errno, EBUSY);
}

TEST(text_test, copies_and_truncates) {
    char buffer[4];
    EXPECT_EQ(copy_text(buffer, sizeof buffer, "abc"), 3u);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(copy_text(buffer, sizeof buffer, "abcd"), 3u);
    EXPECT_STREQ(buffer, "abc");
}

TEST(text_test, copies_a_null_text_as_an_empty_one) {
    char buffer[4] = "abc";
    EXPECT_EQ(copy_text(buffer, sizeof buffer, nullptr), 0u);
    EXPECT_STREQ(buffer, "");
}

TEST(text_test, compares_prefixes) {
    EXPECT_TRUE(begins_with("vrf-red", "vrf-"));
    EXPECT_TRUE(begins_with("vrf-", "vrf-"));
    EXPECT_TRUE(begins_with("red", ""));
    EXPECT_FALSE(begins_with("vrf", "vrf-"));
    EXPECT_FALSE(begins_with("red", "vrf-"));
}

}  // namespace
