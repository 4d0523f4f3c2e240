#include "vrf/acl_attachment.h"

#include "core/text.h"
#include "vrf/acl_state.h"
#include "vrf_test.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class acl_attachment_test : public vrf_test {
  protected:
    static constexpr acl_slot slot = {
        &vrf_node::ssh_v6_acl,    acl_ssh_v6, &upcalls::ssh_configure_v6acl, &upcalls::ssh_remove_v6acl_config, nullptr,
        "Failed to configure it", "vrf: "};
    static constexpr uint32_t bit = 1U << acl_ssh_v6;
    vrf_node* node = create_vrf_node("red");

    acl_attachment_test() {
        add_namespace("red");
        copy_text(node->ssh_v6_acl, acl_name_size, "a");
        forget();
    }

    /// The names and arguments of the traced points.
    static std::vector<std::string> traces() {
        std::vector<std::string> texts;
        for (const auto& line : fake_platform::trace_lines()) {
            std::string text = line.point->name;
            for (const std::string& argument : line.arguments) {
                text += ", " + argument;
            }
            texts.push_back(text);
        }
        return texts;
    }
};

TEST_F(acl_attachment_test, tables_that_cannot_be_created_are_reported) {
    EXPECT_EQ(make_nft_table("tag", "red"), 0);
    fail_call("create_nft_table(red)");
    EXPECT_EQ(make_nft_table("tag", "red"), -1);
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("tag: Failed to create nft table"));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre(log_of_details("Failed to create nft table vrf:  red")));
    EXPECT_THAT(traces(), ElementsAre("vrf.nft_table, red"));
    clear_failed_calls();
}

TEST_F(acl_attachment_test, tables_that_cannot_be_flushed_are_reported) {
    EXPECT_EQ(flush_acl_rules("tag", node, slot), 0);
    fail_call("ssh_flush_nft_table(red, 2)");
    EXPECT_EQ(flush_acl_rules("tag", node, slot), -1);
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("tag: Failed to flush nft table"));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre(log_of_details("Failed to flush nft table vrf:  red")));
    EXPECT_THAT(traces(), ElementsAre("vrf.nft_flush, red, 2"));
    clear_failed_calls();
}

TEST_F(acl_attachment_test, a_list_that_cannot_be_attached_is_reported) {
    fail_call("ssh_configure_v6acl(red, 2)");
    EXPECT_EQ(attach_acl(node, slot), -1);
    EXPECT_THAT(fake_platform::debug_texts(), IsEmpty());
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre(log_of_details("Failed to configure it vrf:  red")));
    EXPECT_THAT(traces(), ElementsAre("vrf.acl, red, a, 2"));
    acl_slot with_debug = slot;
    with_debug.attach_failed_debug = "Failed to configure %s";
    attach_acl(node, with_debug);
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("Failed to configure a"));
    clear_failed_calls();
    EXPECT_EQ(attach_acl(node, slot), 0);
    EXPECT_EQ(node->attached_acls, bit);
}

TEST_F(acl_attachment_test, a_list_in_force_is_not_exchanged_for_itself) {
    const std::string longest(acl_name_size - 1, 'n');
    const std::string longer = longest + "nn";
    EXPECT_TRUE(exchange_acl_name(node, slot, longer.c_str()));
    EXPECT_EQ(node->ssh_v6_acl, longest);
    EXPECT_TRUE(exchange_acl_name(node, slot, longest.c_str())) << "it is not loaded";
    acl_rules_in_force(node, acl_ssh_v6);
    EXPECT_FALSE(exchange_acl_name(node, slot, longest.c_str()));
    EXPECT_FALSE(exchange_acl_name(node, slot, longer.c_str())) << "it is stored without its end";
    EXPECT_EQ(node->attached_acls, bit);
    acl_rules_failed(node, acl_ssh_v6, "not changed");
    EXPECT_TRUE(exchange_acl_name(node, slot, longest.c_str()));
    EXPECT_EQ(node->failed_acls, 0U);
    EXPECT_EQ(node->attached_acls, 0U);
    EXPECT_TRUE(exchange_acl_name(node, slot, nullptr));
    EXPECT_STREQ(node->ssh_v6_acl, "");
    EXPECT_FALSE(exchange_acl_name(node, slot, nullptr));
}

TEST_F(acl_attachment_test, detaching_clears_the_name_and_what_failed) {
    acl_rules_failed(node, acl_ssh_v6, "not changed");
    forget();
    detach_acl(node, slot);
    EXPECT_THAT(fake_platform::calls_of("ssh_"), ElementsAre("ssh_remove_v6acl_config(red, 2)"));
    EXPECT_STREQ(node->ssh_v6_acl, "");
    EXPECT_EQ(node->failed_acls, 0U);
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
    forget();
    detach_acl(node, slot);
    EXPECT_THAT(trail(), IsEmpty()) << "there is no list any more";
}

TEST_F(acl_attachment_test, lists_are_only_reloaded_if_one_failed_and_there_is_a_namespace) {
    agent_upcalls.delete_vrf_node = nullptr;
    reload_acls(node);
    EXPECT_THAT(trail(), ElementsAre("reload_acls(red)"));
    forget();
    acl_rules_in_force(node, acl_ssh_v6);
    reload_acls(node);
    acl_rules_failed(node, acl_ssh_v6, "not changed");
    remove_namespace("red");
    reload_acls(node);
    add_namespace("red");
    agent_upcalls.reload_acls = nullptr;
    reload_acls(node);
    EXPECT_EQ(fake_platform::count_calls("reload_acls(red)"), 0U);
}

}  // namespace
