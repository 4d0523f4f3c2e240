#include "config_files/name_list.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(name_list, names_are_joined_by_commas) {
    char list[12] = "";
    EXPECT_TRUE(append_name(list, sizeof list, "abc"));
    EXPECT_STREQ(list, "abc");
    EXPECT_TRUE(append_name(list, sizeof list, "de"));
    EXPECT_STREQ(list, "abc,de");
    EXPECT_TRUE(append_name(list, sizeof list, "fghi"));
    EXPECT_STREQ(list, "abc,de,fghi");
    char short_names[5] = "a";
    EXPECT_TRUE(append_name(short_names, sizeof short_names, "b"));
    EXPECT_STREQ(short_names, "a,b");
}

TEST(name_list, a_list_that_is_too_long_is_truncated) {
    char list[6] = "abc";
    EXPECT_FALSE(append_name(list, sizeof list, "de"));
    EXPECT_STREQ(list, "abc,d");
    EXPECT_FALSE(append_name(list, sizeof list, "f"));
    EXPECT_STREQ(list, "abc,d");
    char smallest[1] = "";
    EXPECT_FALSE(append_name(smallest, sizeof smallest, "a"));
    EXPECT_STREQ(smallest, "");
}

std::vector<std::string> names_of(const char* list, const char* separators) {
    std::vector<std::string> names;
    char name[5];
    while (next_name(&list, separators, name, sizeof name)) {
        names.emplace_back(name);
    }
    EXPECT_EQ(*list, '\0');
    return names;
}

TEST(name_list, is_split_at_its_separators) {
    EXPECT_EQ(names_of("a,bc,def", ","), (std::vector<std::string>{"a", "bc", "def"}));
    EXPECT_EQ(names_of(",a,,b,", ","), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(names_of("a, b c", ", "), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(names_of("a b", ","), (std::vector<std::string>{"a b"}));
    EXPECT_TRUE(names_of("", ",").empty());
    EXPECT_TRUE(names_of(",,", ",").empty());
}

TEST(name_list, a_long_name_is_truncated_and_skipped_completely) {
    EXPECT_EQ(names_of("abcd,efghi,j", ","), (std::vector<std::string>{"abcd", "efgh", "j"}));
}

}  // namespace
