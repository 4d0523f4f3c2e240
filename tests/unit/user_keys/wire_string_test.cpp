#include "user_keys/wire_string.h"

#include <gtest/gtest.h>

namespace {

TEST(wire_string, round_trips) {
    std::string bytes;
    for (const std::string& field : {std::string(), std::string("\0a", 2), std::string(300, 'x')}) {
        wire_append_string(bytes, field);
    }
    EXPECT_EQ(bytes.substr(0, 8), std::string("\0\0\0\0\0\0\0\2", 8));
    std::string_view rest = bytes;
    std::string_view field;
    ASSERT_TRUE(wire_take_string(rest, field));
    EXPECT_EQ(field, "");
    ASSERT_TRUE(wire_take_string(rest, field));
    EXPECT_EQ(field, std::string_view("\0a", 2));
    ASSERT_TRUE(wire_take_string(rest, field));
    EXPECT_EQ(field.size(), 300U);
    EXPECT_TRUE(rest.empty());
}

TEST(wire_string, is_refused_if_it_is_truncated) {
    std::string_view field = "before";
    for (const std::string& bytes : {std::string(), std::string("\0\0\0", 3), std::string("\0\0\0\2a", 5),
                                     std::string("\xff\xff\xff\xff"
                                                 "a")}) {
        std::string_view rest = bytes;
        EXPECT_FALSE(wire_take_string(rest, field));
        EXPECT_EQ(rest, bytes);
        EXPECT_EQ(field, "before");
    }
}

}  // namespace
