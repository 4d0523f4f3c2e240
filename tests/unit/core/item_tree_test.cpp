#include "core/item_tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using testing::ElementsAre;

constexpr std::array<std::string_view, 7> paths = {"top/*",          "other",   "top/second/a", "top/*/below",
                                                   "top/second/bcd", "topmost", "top"};
constexpr auto tree = make_item_tree<tree_size(paths)>(paths);

std::vector<std::string> siblings_from(int32_t node) {
    std::vector<std::string> names;
    for (; node != no_node; node = tree[node].next_sibling) {
        names.emplace_back(tree[node].name.data());
    }
    return names;
}

TEST(item_tree_test, nodes_are_numbered_depth_first) {
    std::vector<std::string> names;
    for (const item_tree_node& node : tree) {
        names.emplace_back(node.name.data());
    }
    EXPECT_THAT(names, ElementsAre("top", "*", "below", "second", "a", "bcd", "other", "topmost"));
}

TEST(item_tree_test, siblings_are_in_the_order_in_which_paths_first_name_them) {
    EXPECT_THAT(siblings_from(0), ElementsAre("top", "other", "topmost"));
    EXPECT_THAT(siblings_from(tree[0].first_child), ElementsAre("*", "second"));
    EXPECT_THAT(siblings_from(tree[1].first_child), ElementsAre("below"));
    EXPECT_THAT(siblings_from(tree[3].first_child), ElementsAre("a", "bcd"));
    EXPECT_EQ(tree[2].first_child, no_node);
}

TEST(item_tree_test, a_handler_is_numbered_by_its_path) {
    std::vector<int32_t> handlers;
    for (const item_tree_node& node : tree) {
        handlers.push_back(node.handler);
    }
    EXPECT_THAT(handlers, ElementsAre(6, 0, 3, no_handler, 2, 4, 1, 5));
}

TEST(item_tree_test, equal_paths_are_found) {
    EXPECT_TRUE(paths_differ(paths));
    EXPECT_FALSE(paths_differ(std::array<std::string_view, 3>{"a/b", "a", "a/b"}));
}

}  // namespace
