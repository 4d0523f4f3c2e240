#include "common/line_changes.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(line_changes, removed_and_added_lines_come_in_the_order_of_the_file) {
    EXPECT_THAT(line_changes("a\nb\nc\n", "a\nb\nc\n"), IsEmpty());
    EXPECT_THAT(line_changes("a\nb\nc\n", "a\nx\nc\n"), ElementsAre("-b", "+x"));
    EXPECT_THAT(line_changes("a\nb\nc\nd\ne\n", "b\nc\nx\ne\ny\n"), ElementsAre("-a", "-d", "+x", "+y"));
    EXPECT_THAT(line_changes("", "a\nb"), ElementsAre("+a", "+b"));
    EXPECT_THAT(line_changes("a\n\n", ""), ElementsAre("-a", "-"));
}

TEST(line_changes, long_differences_are_cut) {
    std::string before;
    std::string after;
    for (int i = 0; i < 3000; i++) {
        before += "old " + std::to_string(i) + '\n';
        after += "new " + std::to_string(i) + '\n';
    }
    const std::vector<std::string> changes = line_changes(before, after);
    ASSERT_EQ(changes.size(), 501U);
    EXPECT_EQ(changes[0], "-old 0");
    EXPECT_EQ(changes[500], "... 6000 changed lines in total");
}

}  // namespace
