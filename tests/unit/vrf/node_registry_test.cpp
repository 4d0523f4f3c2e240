#include "vrf/node_registry.h"

#include "allocation_failure.h"
#include "config_files/parameter_table.h"
#include "config_files/vrf_node.h"
#include "vrf_test.h"

namespace {

using node_registry_test = vrf_test;

std::vector<std::string> names() {
    std::vector<std::string> found;
    for (const vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        found.emplace_back(node->name);
    }
    return found;
}

using testing::ElementsAre;

TEST_F(node_registry_test, a_new_node_has_one_reference_and_is_otherwise_empty) {
    const vrf_node* node = create_vrf_node("red");
    ASSERT_NE(node, nullptr);
    EXPECT_STREQ(node->name, "red");
    EXPECT_EQ(node->reference_count, 1);
    EXPECT_EQ(node->nft_initialised, 0u);
    EXPECT_EQ(node->server_started, 0u);
    for (const char* acl_name : {node->ssh_v4_acl, node->ssh_v6_acl, node->netconf_v4_acl, node->netconf_v6_acl}) {
        EXPECT_STREQ(acl_name, "");
    }
    EXPECT_EQ(node->v4_aclhead, nullptr);
    EXPECT_EQ(node->v6_aclhead, nullptr);
}

TEST_F(node_registry_test, a_new_node_has_its_line_entries_between_markers) {
    const vrf_node* node = create_vrf_node("red");
    EXPECT_STREQ(node->lines[VRF_START_MARKER].keyword, "startconfig");
    EXPECT_EQ(node->lines[VRF_START_MARKER].current, nullptr);
    EXPECT_STREQ(node->lines[VRF_NETCONF_SUBSYSTEM].keyword, "Subsystem netconf");
    EXPECT_STREQ(node->lines[VRF_NETCONF_SUBSYSTEM].default_text, "");
    EXPECT_EQ(node->lines[VRF_NETCONF_SUBSYSTEM].current, nullptr);
    EXPECT_EQ(node->lines[VRF_NETCONF_SUBSYSTEM].allvrf, 0u);
    EXPECT_STREQ(node->lines[VRF_END_MARKER].keyword, "endconfig");
    EXPECT_EQ(node->lines[VRF_END_MARKER].current, nullptr);
}

TEST_F(node_registry_test, the_newest_node_comes_first) {
    create_vrf_node("red");
    create_vrf_node("green");
    create_vrf_node("blue");
    EXPECT_THAT(names(), ElementsAre("blue", "green", "red"));
}

TEST_F(node_registry_test, a_name_is_truncated_to_32_characters) {
    const std::string longest(32, 'a');
    EXPECT_STREQ(create_vrf_node(longest.c_str())->name, longest.c_str());
    EXPECT_EQ(find_vrf_node(longest.c_str()), server_config.nodes);
    EXPECT_STREQ(create_vrf_node((std::string(32, 'b') + "c").c_str())->name, std::string(32, 'b').c_str());
}

TEST_F(node_registry_test, a_prefix_of_a_name_is_another_name) {
    vrf_node* longer = create_vrf_node("red1");
    EXPECT_EQ(find_vrf_node("red"), nullptr);
    vrf_node* shorter = create_vrf_node("red");
    EXPECT_EQ(find_vrf_node("red"), shorter);
    EXPECT_EQ(find_vrf_node("red1"), longer);
}

TEST_F(node_registry_test, deleting_the_head_moves_the_head) {
    create_vrf_node("red");
    vrf_node* head = create_vrf_node("green");
    forget();
    delete_vrf_node(head);
    EXPECT_THAT(names(), ElementsAre("red"));
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("delete_vrf_node, vrfname:=green"));
}

TEST_F(node_registry_test, deleting_in_the_middle_and_at_the_end_keeps_the_others) {
    vrf_node* last = create_vrf_node("red");
    vrf_node* middle = create_vrf_node("green");
    create_vrf_node("blue");
    delete_vrf_node(middle);
    EXPECT_THAT(names(), ElementsAre("blue", "red"));
    delete_vrf_node(last);
    EXPECT_THAT(names(), ElementsAre("blue"));
}

// A node is deleted by identity, not by name.
TEST_F(node_registry_test, a_node_outside_the_list_is_left_alone) {
    create_vrf_node("red");
    vrf_node stranger{};
    std::snprintf(stranger.name, sizeof stranger.name, "red");
    delete_vrf_node(&stranger);
    EXPECT_THAT(names(), ElementsAre("red"));
    delete_vrf_node(nullptr);
    EXPECT_THAT(names(), ElementsAre("red"));
}

TEST_F(node_registry_test, being_out_of_memory_is_reported) {
    allocation_failure::fail_next();
    EXPECT_EQ(create_vrf_node("red"), nullptr);
    EXPECT_EQ(server_config.nodes, nullptr);
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("Error:=Cannot allocate memory(0xc), vrfname:=red, memory allocation failed"));
}

}  // namespace
