#include "config_files/vrf_node.h"

#include <gtest/gtest.h>

#include "../agent_test.h"
#include "core/text.h"

namespace {

using vrf_node_test = agent_test;

TEST_F(vrf_node_test, nothing_is_found_in_an_empty_list) {
    EXPECT_EQ(find_vrf_node("red"), nullptr);
}

TEST_F(vrf_node_test, nodes_are_found_by_their_full_name) {
    vrf_node red{};
    vrf_node redder{};
    copy_text(red.name, sizeof red.name, "red");
    copy_text(redder.name, sizeof redder.name, "redder");
    redder.next = &red;
    server_config.nodes = &redder;
    EXPECT_EQ(find_vrf_node("red"), &red);
    EXPECT_EQ(find_vrf_node("redder"), &redder);
    EXPECT_EQ(find_vrf_node("re"), nullptr);
    EXPECT_EQ(find_vrf_node(""), nullptr);
}

TEST_F(vrf_node_test, of_two_nodes_with_one_name_the_newest_is_found) {
    vrf_node older{};
    vrf_node newer{};
    copy_text(older.name, sizeof older.name, "red");
    copy_text(newer.name, sizeof newer.name, "red");
    newer.next = &older;
    server_config.nodes = &newer;
    EXPECT_EQ(find_vrf_node("red"), &newer);
}

TEST_F(vrf_node_test, a_name_of_32_characters_is_found_and_one_of_33_is_another) {
    vrf_node node{};
    const std::string name(32, 'v');
    copy_text(node.name, sizeof node.name, name.c_str());
    server_config.nodes = &node;
    EXPECT_EQ(find_vrf_node(name.c_str()), &node);
    EXPECT_EQ(find_vrf_node((name + "v").c_str()), nullptr);
}

}  // namespace
