#include "acl/subscription.h"

#include <cerrno>
#include <set>

#include "../account.h"
#include "acl/acl_family.h"
#include "acl_test.h"
#include "call_faults.h"
#include "scratch_root.h"
#include "usage.h"
#include "vrf/acl_types.h"

namespace {

class subscription_test : public acl_test {
  protected:
    static acl_change_notice notice(const char* list, bool present) {
        acl_change_notice made = {};
        copy_text(made.acl_name, sizeof made.acl_name, list);
        made.present = present ? 1 : 0;
        return made;
    }

    static bool loaded(const std::string& vrf, const std::string& table) {
        for (const std::string& load : loads()) {
            if (load.ends_with(rule_file(vrf, table))) {
                return true;
            }
        }
        return false;
    }
};

constexpr char ssh_drop[] = "        ip saddr & 0.0.0.0 == 0.0.0.0 ip daddr & 0.0.0.0 == 0.0.0.0  tcp dport 22 drop\n";

}  // namespace

TEST_F(subscription_test, attaching_reads_converts_loads_and_subscribes) {
    acl_ipv4_entry ten = ipv4_entry();
    ten.SourceAddress = ipv4("10.0.0.0");
    ten.SourceAddressMask = ipv4("0.255.255.255");
    acl_ipv4_entry host = ipv4_entry(deny);
    host.ProtocolOperator = 0;
    host.Protocol = ACL_PROTOCOL_ANY_IPV4;
    host.SourceAddress = ipv4("192.0.2.7");
    host.SourceAddressMask = 0;
    set_list("ops", {ten, host});
    name(red->ssh_v4_acl, "ops");
    EXPECT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    expect_golden("acl/golden/two_entries.nft", read_file(rule_file("red", "norvossh_v4acl")));
    EXPECT_TRUE(loaded("red", "norvossh_v4acl"));
    EXPECT_EQ(fake_platform::acl_subscriptions("ops"), 1U);
    EXPECT_NE(red->v4_aclhead, nullptr);
    EXPECT_EQ(fake_platform::bindings(), 0U);
    EXPECT_TRUE(fake_platform::debugged("ssh_ipv4_acl_register_cb: Registered for ACL callback, ACL name: ops"));
}

TEST_F(subscription_test, a_list_that_does_not_exist_is_subscribed_to_and_not_loaded) {
    name(red->ssh_v4_acl, "later");
    EXPECT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    EXPECT_TRUE(loads().empty());
    EXPECT_EQ(fake_platform::acl_subscriptions("later"), 1U);
    set_list("later", {ipv4_entry()});
    EXPECT_EQ(fake_platform::change_acl(ACL_FAMILY_IPV4, "later", true), std::vector<int>{0});
    EXPECT_TRUE(loaded("red", "norvossh_v4acl"));
}

TEST_F(subscription_test, each_family_accepts_only_its_own_types) {
    name(red->netconf_v6_acl, "six");
    EXPECT_EQ(ssh_configure_v4acl(nullptr, red, acl_netconf_v6), -1);
    EXPECT_TRUE(fake_platform::debugged("Invalid ACL type"));
    EXPECT_EQ(ssh_configure_v6acl(nullptr, red, acl_ssh_v4), -1);
    EXPECT_EQ(fake_platform::acl_handles(), 0U);
}

TEST_F(subscription_test, two_vrfs_share_one_subscription) {
    set_list("ops", {ipv4_entry()});
    name(red->ssh_v4_acl, "ops");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    name(blue->ssh_v4_acl, "ops");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, blue, 0), 0);
    EXPECT_TRUE(fake_platform::debugged("ssh_ipv4_acl_register_cb: Aleady registered for ACL callback"));
    EXPECT_EQ(fake_platform::acl_handles(), 1U);
    stub_commands::clear_log();
    EXPECT_EQ(fake_platform::change_acl(ACL_FAMILY_IPV4, "ops", true), std::vector<int>{0});
    // The newest VRF is first in the list.
    ASSERT_EQ(loads().size(), 2U);
    EXPECT_TRUE(loads()[0].ends_with(rule_file("blue", "norvossh_v4acl")));
    EXPECT_TRUE(loads()[1].ends_with(rule_file("red", "norvossh_v4acl")));
    stub_commands::clear_log();
    ssh_remove_v4acl_config(red, 0);
    EXPECT_EQ(read_file(rule_file("red", "norvossh_v4acl")), "flush table ip norvossh_v4acl\n\n");
    EXPECT_EQ(loads().size(), 1U);
    EXPECT_EQ(fake_platform::acl_subscriptions("ops"), 1U);
}

TEST_F(subscription_test, both_services_of_a_vrf_share_one_subscription) {
    set_list("ops", {ipv4_entry()});
    name(red->ssh_v4_acl, "ops");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    name(red->netconf_v4_acl, "ops");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 1), 0);
    EXPECT_EQ(fake_platform::acl_handles(), 1U);
    stub_commands::clear_log();
    const acl_change_notice change = notice("ops", true);
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(&change), 0);
    ASSERT_EQ(loads().size(), 2U);
    EXPECT_TRUE(loads()[0].ends_with("norvossh_v4acl.nft"));
    EXPECT_TRUE(loads()[1].ends_with("netconf_v4acl.nft"));
}

TEST_F(subscription_test, a_configured_name_alone_is_no_subscription) {
    set_list("ops", {ipv4_entry()});
    // As on a node whose items are stored before its namespaces exist: all services name the list, none has attached
    // it.
    for (vrf_node* node : {red, blue}) {
        node->reference_count = 2;
        name(node->ssh_v4_acl, "ops");
        name(node->netconf_v4_acl, "ops");
    }
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    EXPECT_FALSE(fake_platform::debugged("Aleady registered for ACL callback"));
    EXPECT_EQ(fake_platform::acl_subscriptions("ops"), 1U);
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 1), 0);
    ASSERT_EQ(ssh_configure_v4acl(nullptr, blue, 0), 0);
    EXPECT_TRUE(fake_platform::debugged("ssh_ipv4_acl_register_cb: Aleady registered for ACL callback"));
    EXPECT_EQ(fake_platform::acl_handles(), 1U);
    stub_commands::clear_log();
    EXPECT_EQ(fake_platform::change_acl(ACL_FAMILY_IPV4, "ops", true), std::vector<int>{0});
    EXPECT_EQ(loads().size(), 4U);
}

TEST_F(subscription_test, two_lists_of_one_family_are_both_followed) {
    name(red->ssh_v4_acl, "ops");
    name(red->netconf_v4_acl, "net");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 1), 0);
    EXPECT_EQ(fake_platform::acl_handles(), 2U);
    // The VRF's handle belongs to the later list; detaching the earlier one leaves it alone.
    ssh_remove_v4acl_config(red, 0);
    name(red->ssh_v4_acl, "");
    EXPECT_EQ(fake_platform::acl_subscriptions("ops"), 0U);
    EXPECT_EQ(fake_platform::acl_subscriptions("net"), 1U);
    ssh_remove_v4acl_config(red, 1);
    EXPECT_EQ(fake_platform::acl_handles(), 0U);
    EXPECT_EQ(red->v4_aclhead, nullptr);
}

TEST_F(subscription_test, replacing_a_list_ends_its_subscription) {
    name(red->ssh_v4_acl, "ops");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    EXPECT_EQ(fake_platform::acl_handles(), 1U);
    name(red->ssh_v4_acl, "new");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    EXPECT_EQ(fake_platform::acl_subscriptions("ops"), 0U);
    EXPECT_EQ(fake_platform::acl_subscriptions("new"), 1U);
    name(blue->ssh_v4_acl, "old");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, blue, 0), 0);
    name(blue->ssh_v4_acl, "new");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, blue, 0), 0);
    EXPECT_EQ(fake_platform::acl_handles(), 1U);
    EXPECT_EQ(blue->v4_aclhead, nullptr);
}

TEST_F(subscription_test, a_subscription_outlives_the_vrf_that_made_it) {
    name(red->ssh_v4_acl, "ops");
    name(blue->ssh_v4_acl, "ops");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    ASSERT_EQ(ssh_configure_v4acl(nullptr, blue, 0), 0);
    ssh_remove_v4acl_config(red, 0);
    delete_vrf_node(red);
    EXPECT_EQ(fake_platform::change_acl(ACL_FAMILY_IPV4, "ops", true), std::vector<int>{0});
    ssh_remove_v4acl_config(blue, 0);
    EXPECT_TRUE(fake_platform::debugged(" ssh_remove_v4acl_config: VRF node v4_aclhead is NULL"));
    EXPECT_EQ(fake_platform::acl_handles(), 0U);
}

TEST_F(subscription_test, one_list_in_64_vrfs_has_one_subscription_and_each_file_is_rebuilt_once) {
    set_list("ops", {ipv4_entry()});
    for (int i = 0; i < 64; ++i) {
        vrf_node* node = create_vrf_node(("vrf" + std::to_string(i)).c_str());
        name(node->ssh_v4_acl, "ops");
        scratch_root::add_namespace_file(std::string("vrf-") + node->name);
    }
    for (vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        if (node->ssh_v4_acl[0] != '\0') {
            ASSERT_EQ(ssh_configure_v4acl(nullptr, node, 0), 0);
        }
    }
    EXPECT_EQ(fake_platform::acl_handles(), 1U);
    stub_commands::clear_log();
    EXPECT_EQ(fake_platform::change_acl(ACL_FAMILY_IPV4, "ops", true), std::vector<int>{0});
    ASSERT_EQ(fake_platform::steps().size(), 64U);
    EXPECT_EQ(fake_platform::steps().front(), "loading access list ops 0/64");
    EXPECT_EQ(fake_platform::steps().back(), "loading access list ops 63/64");
    const std::vector<std::string> commands = loads();
    EXPECT_EQ(commands.size(), 64U);
    EXPECT_EQ(std::set<std::string>(commands.begin(), commands.end()).size(), 64U);
}

TEST_F(subscription_test, equal_names_in_one_vrf_do_not_count_without_references) {
    name(red->ssh_v4_acl, "ops");
    name(red->netconf_v4_acl, "ops");
    EXPECT_EQ(acl_in_use_elsewhere(red, 0), 0);
    red->reference_count = 0;
    EXPECT_EQ(acl_in_use_elsewhere(red, 0), 1);
    EXPECT_EQ(acl_in_use_elsewhere(red, 2), 1);
    name(blue->netconf_v4_acl, "ops");
    EXPECT_EQ(acl_in_use_elsewhere(red, 0), 0);
    EXPECT_EQ(acl6_in_use_elsewhere(red, 0), 1);
}

TEST_F(subscription_test, the_acl_service_is_tried_five_times) {
    name(red->ssh_v4_acl, "ops");
    fake_platform::fail("acl_service_get_list", EAGAIN, 4);
    EXPECT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    EXPECT_EQ(fake_platform::count_calls("acl_service_get_list"), 5U);
}

TEST_F(subscription_test, after_five_failures_attaching_fails) {
    name(red->ssh_v4_acl, "ops");
    fake_platform::fail("acl_service_get_list", EAGAIN);
    EXPECT_EQ(ssh_configure_v4acl(nullptr, red, 0), -1);
    EXPECT_EQ(fake_platform::count_calls("acl_service_get_list"), 5U);
    EXPECT_TRUE(
        fake_platform::logged("ERR_ERRNO", "Error:=Resource temporarily unavailable(0xb), IPv4 acl get list failed"));
    EXPECT_TRUE(fake_platform::debugged("ssh_configure_v4acl: Failed to register for ACL callback"));
    fake_platform::clear_failures();
    fake_platform::fail("acl_service_register_callback", EAGAIN);
    EXPECT_EQ(ssh_configure_v4acl(nullptr, red, 0), -1);
    EXPECT_TRUE(fake_platform::logged(
        "ERR_ERRNO", "Error:=Resource temporarily unavailable(0xb), IPv4 acl callback registration failed"));
    EXPECT_EQ(fake_platform::acl_handles(), 0U);
    name(red->ssh_v6_acl, "six");
    EXPECT_EQ(ssh_configure_v6acl(nullptr, red, 2), -1);
    EXPECT_TRUE(fake_platform::logged(
        "ERR_ERRNO", "Error:=Resource temporarily unavailable(0xb), IPv6 acl callback registration failed"));
}

TEST_F(subscription_test, a_list_that_cannot_be_read_is_not_loaded) {
    set_list("ops", {ipv4_entry()});
    name(red->ssh_v4_acl, "ops");
    for (const char* operation : {"datastore_bind", "datastore_list_get", "datastore_list_fetch"}) {
        fake_platform::clear_failures();
        fake_platform::fail(operation, EIO);
        EXPECT_EQ(ssh_configure_v4acl(nullptr, red, 0), -1) << operation;
        EXPECT_TRUE(loads().empty());
        EXPECT_EQ(fake_platform::bindings(), 0U);
    }
    EXPECT_TRUE(fake_platform::logged(
        "ERR_DATASTORE_GET",
        "Error:=Input/output error(0x5), Location:=IPV4 ACL CFG, Failed to get an item from datastore"));
}

TEST_F(subscription_test, a_missing_library_is_a_failed_binding) {
    remove_path(paths::datastore_library);
    name(red->ssh_v4_acl, "ops");
    EXPECT_EQ(ssh_configure_v4acl(nullptr, red, 0), -1);
    EXPECT_FALSE(fake_platform::log_texts().empty());
    EXPECT_NE(fake_platform::log_texts()[0].find("0x8081c200"), std::string::npos);
}

TEST_F(subscription_test, an_entry_that_cannot_be_decoded_stops_attaching) {
    fake_platform::set_list(list_path("ops"), {{"10", "no record"}});
    name(red->ssh_v4_acl, "ops");
    EXPECT_EQ(ssh_configure_v4acl(nullptr, red, 0), -1);
    EXPECT_NE(fake_platform::log_texts()[0].find("IPV4 ACL CFG"), std::string::npos);
}

TEST_F(subscription_test, a_removed_list_flushes_every_table_that_uses_it) {
    name(red->ssh_v4_acl, "ops");
    name(blue->netconf_v4_acl, "ops");
    const acl_change_notice change = notice("ops", false);
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(&change), 0);
    EXPECT_EQ(read_file(rule_file("red", "norvossh_v4acl")), "flush table ip norvossh_v4acl\n\n");
    EXPECT_EQ(read_file(rule_file("blue", "netconf_v4acl")), "flush table ip netconf_v4acl\n\n");
    stub_commands::fail("ip netns exec", 1);
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(&change), 1);
    EXPECT_NE(fake_platform::log_texts().back().find("Failed to flush nftable"), std::string::npos);
}

TEST_F(subscription_test, a_changed_list_that_cannot_be_read_closes_the_port) {
    name(red->ssh_v4_acl, "gone");
    const acl_change_notice change = notice("gone", true);
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(&change), 0);
    EXPECT_NE(read_file(rule_file("red", "norvossh_v4acl")).find(ssh_drop), std::string::npos);
    EXPECT_TRUE(loaded("red", "norvossh_v4acl"));
}

TEST_F(subscription_test, a_failed_read_fails_ssh_but_netconf_only_if_decoding_fails) {
    set_list("ops", {ipv4_entry()});
    name(red->ssh_v4_acl, "ops");
    const acl_change_notice change = notice("ops", true);
    fake_platform::fail("datastore_list_fetch", EIO);
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(&change), 1);
    EXPECT_TRUE(fake_platform::log_texts().empty());
    name(red->ssh_v4_acl, "");
    name(red->netconf_v4_acl, "ops");
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(&change), 1);
    EXPECT_NE(fake_platform::log_texts()[0].find("IPV4 ACL CFG"), std::string::npos);
}

TEST_F(subscription_test, a_notice_for_an_unused_list_does_nothing) {
    name(red->ssh_v4_acl, "ops");
    const acl_change_notice change = notice("other", true);
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(&change), 0);
    EXPECT_TRUE(loads().empty());
}

TEST_F(subscription_test, a_missing_notice_is_reported) {
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(nullptr), 1);
    EXPECT_TRUE(fake_platform::logged("ERR_GENERAL", "ACL head is null"));
    EXPECT_EQ(ssh_ipv6_acl_reg_upd(nullptr), 1);
}

TEST_F(subscription_test, detaching_without_a_subscription_says_so) {
    name(red->ssh_v4_acl, "ops");
    ssh_remove_v4acl_config(red, 0);
    EXPECT_TRUE(fake_platform::debugged(" ssh_remove_v4acl_config: VRF node v4_aclhead is NULL"));
    name(red->ssh_v6_acl, "six");
    ssh_remove_v6acl_config(red, 2);
    EXPECT_TRUE(fake_platform::debugged(" ssh_remove_v6acl_config: VRF node v6_aclhead is NULL"));
}

TEST_F(subscription_test, detaching_the_last_user_ends_the_subscription) {
    name(red->ssh_v6_acl, "six");
    ASSERT_EQ(ssh_configure_v6acl(nullptr, red, 2), 0);
    ssh_remove_v6acl_config(red, 2);
    EXPECT_EQ(fake_platform::acl_handles(), 0U);
    EXPECT_EQ(red->v6_aclhead, nullptr);
    EXPECT_TRUE(fake_platform::debugged(" ssh_remove_v6acl_config: Successfully unregistered ACL callback"));
}

TEST_F(subscription_test, a_failed_load_is_reported_with_list_vrf_and_reason) {
    set_ipv6_list("six", {ipv6_entry()});
    name(red->ssh_v6_acl, "six");
    stub_commands::set_hook(
        "ip netns exec",
        "printf '/tmp/f.nft:6:54-57: Error: syntax error\\n   ip6 saddr :: ffff:0:ffff::\\n   ^^^\\n' >&2");
    stub_commands::fail("ip netns exec", 1);
    EXPECT_EQ(ssh_configure_v6acl(nullptr, red, 2), -1);
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=File exists(0x11), Failed to apply nft rules"));
    EXPECT_TRUE(fake_platform::logged("ERR_DETAILS",
                                      "access list six was not loaded in VRF red: /tmp/f.nft:6:54-57: Error: syntax "
                                      "error ip6 saddr :: ffff:0:ffff::"));
}

TEST_F(subscription_test, a_failed_flush_stops_detaching) {
    name(red->ssh_v4_acl, "ops");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    stub_commands::fail("ip netns exec", 1);
    ssh_remove_v4acl_config(red, 0);
    EXPECT_TRUE(fake_platform::debugged("Failed to flush nftable"));
    EXPECT_EQ(fake_platform::acl_subscriptions("ops"), 1U);
}

TEST_F(subscription_test, detaching_without_a_namespace_flushes_nothing_and_ends_the_subscription) {
    name(red->ssh_v4_acl, "ops");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    scratch_root::remove_namespace_file("vrf-red");
    stub_commands::clear_log();
    ssh_remove_v4acl_config(red, 0);
    EXPECT_TRUE(loads().empty());
    EXPECT_EQ(fake_platform::acl_subscriptions("ops"), 0U);
}

TEST_F(subscription_test, a_subscription_ends_when_its_list_is_no_longer_configured) {
    name(red->ssh_v4_acl, "ops");
    name(blue->ssh_v4_acl, "ops");
    name(red->netconf_v6_acl, "six");
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, acl_ssh_v4), 0);
    ASSERT_EQ(ssh_configure_v6acl(nullptr, red, acl_netconf_v6), 0);
    name(red->ssh_v4_acl, "");
    name(red->netconf_v6_acl, "");
    release_unused_subscriptions();
    EXPECT_EQ(fake_platform::acl_subscriptions("ops"), 1U);
    EXPECT_EQ(fake_platform::acl_subscriptions("six"), 0U);
    name(blue->ssh_v4_acl, "");
    release_unused_subscriptions();
    EXPECT_EQ(fake_platform::acl_handles(), 0U);
}

TEST_F(subscription_test, a_list_whose_first_load_fails_is_followed) {
    set_list("ops", {ipv4_entry()});
    name(red->ssh_v4_acl, "ops");
    stub_commands::fail("ip netns exec", 1, 1);
    EXPECT_EQ(ssh_configure_v4acl(nullptr, red, 0), -1);
    EXPECT_EQ(fake_platform::acl_subscriptions("ops"), 1U);
    stub_commands::clear_log();
    EXPECT_EQ(fake_platform::change_acl(ACL_FAMILY_IPV4, "ops", true), std::vector<int>{0});
    EXPECT_TRUE(loaded("red", "norvossh_v4acl"));
}

TEST_F(subscription_test, a_list_whose_file_cannot_be_created_is_followed) {
    set_list("ops", {ipv4_entry()});
    name(red->ssh_v4_acl, "ops");
    write_file("/tmp/norvo-ssh", "in the way");
    EXPECT_EQ(ssh_configure_v4acl(nullptr, red, 0), -1);
    EXPECT_EQ(fake_platform::acl_subscriptions("ops"), 1U);
}

TEST_F(subscription_test, a_vrf_without_namespace_does_not_stop_a_change_for_the_others) {
    set_list("ops", {ipv4_entry()});
    name(red->ssh_v4_acl, "ops");
    name(blue->ssh_v4_acl, "ops");
    scratch_root::remove_namespace_file("vrf-blue");
    const acl_change_notice change = notice("ops", true);
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(&change), 0);
    EXPECT_EQ(loads().size(), 1U);
    EXPECT_TRUE(loaded("red", "norvossh_v4acl"));
    const acl_change_notice removal = notice("ops", false);
    stub_commands::clear_log();
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(&removal), 0);
    EXPECT_EQ(loads().size(), 1U);
}

TEST_F(subscription_test, a_vrf_that_fails_does_not_stop_a_change_for_the_others) {
    set_list("ops", {ipv4_entry()});
    for (vrf_node* node : {red, blue}) {
        name(node->ssh_v4_acl, "ops");
        name(node->netconf_v4_acl, "ops");
    }
    stub_commands::fail("ip netns exec vrf-blue", 1);
    const acl_change_notice change = notice("ops", true);
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(&change), 1);
    EXPECT_EQ(loads().size(), 4U);
    stub_commands::clear_log();
    const acl_change_notice removal = notice("ops", false);
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(&removal), 1);
    EXPECT_EQ(loads().size(), 4U);
}

TEST_F(subscription_test, a_name_ends_at_its_first_slash) {
    name(red->ssh_v4_acl, "ops/other");
    datastore_list* list = nullptr;
    uint32_t count = 0;
    datastore_binding* binding = nullptr;
    set_list("ops", {ipv4_entry(), ipv4_entry()});
    EXPECT_EQ(connect_to_ipv4_datastore_acl("ops/other", &list, &count, &binding), 0U);
    EXPECT_EQ(count, 2U);
    datastore_list_free(list);
    datastore_unbind(binding);
}

TEST_F(subscription_test, ipv6_lists_have_their_own_tree_and_tables) {
    set_ipv6_list("six", {ipv6_entry()});
    name(red->ssh_v6_acl, "six");
    ASSERT_EQ(ssh_configure_v6acl(nullptr, red, 2), 0);
    EXPECT_NE(read_file(rule_file("red", "norvossh_v6acl"))
                  .find("                ip6 saddr ::/0 ip6 daddr ::/0 tcp dport 22 accept \n"),
              std::string::npos);
}

TEST_F(subscription_test, a_list_truncated_by_a_full_disk_is_not_loaded) {
    std::filesystem::create_directories("/tmp/norvo-ssh/access-list");
    scratch_root::limit_space("/tmp/norvo-ssh/access-list", 64 * 1024);
    set_list("ops", std::vector<acl_ipv4_entry>(3000, ipv4_entry(deny)));
    name(red->ssh_v4_acl, "ops");
    EXPECT_EQ(ssh_configure_v4acl(nullptr, red, 0), -1);
    const acl_change_notice change = notice("ops", true);
    EXPECT_EQ(ssh_ipv4_acl_reg_upd(&change), 1);
    EXPECT_TRUE(loads().empty());
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=No space left on device(0x1c), Failed to apply nft rules"));
}

// --- Everything that is asked, run and reported -----------------------------------------------------------------------

namespace {

struct family_calls {
    const acl_family& family;
    const char* list;
    int (*configure)(event_manager* manager, vrf_node* node, uint32_t type);
    void (*remove)(vrf_node* node, uint32_t type);
    int (*changed)(const acl_change_notice* notice);
};

const family_calls ipv4_calls = {ipv4_acl_family, "ops", ssh_configure_v4acl, ssh_remove_v4acl_config,
                                 ssh_ipv4_acl_reg_upd};
const family_calls ipv6_calls = {ipv6_acl_family, "six", ssh_configure_v6acl, ssh_remove_v6acl_config,
                                 ssh_ipv6_acl_reg_upd};

class subscription_account_test : public subscription_test {
  protected:
    std::string text;
    const size_t descriptors = open_descriptors();

    void note(const std::string& step, int result) {
        text += "== " + step + ": " + std::to_string(result) + '\n' + account();
        EXPECT_EQ(open_descriptors(), descriptors) << step;
        fake_platform::clear_failures();
        call_faults::clear();
        stub_commands::clear_rules();
    }

    void name_list(const family_calls& calls) {
        name(red->*calls.family.ssh_name, calls.list);
        name(blue->*calls.family.netconf_name, calls.list);
    }

    void unsubscribe(const family_calls& calls) {
        name(red->*calls.family.ssh_name, "");
        name(blue->*calls.family.netconf_name, "");
        release_unused_subscriptions();
        name_list(calls);
        account();
    }

    void fail_each_step(const family_calls& calls) {
        const uint32_t type = calls.family.ssh_type;
        for (const char* operation : {"datastore_bind", "datastore_list_get", "datastore_list_fetch",
                                      "acl_service_get_list", "acl_service_register_callback"}) {
            unsubscribe(calls);
            fake_platform::fail(operation, EIO);
            note(std::string("attach without ") + operation, calls.configure(nullptr, red, type));
        }
        unsubscribe(calls);
        call_faults::fail_call("_ZnwmRKSt9nothrow_t", ENOMEM, call_faults::once);
        note("attach without memory", calls.configure(nullptr, red, type));
        stub_commands::fail("ip netns exec", 1);
        note("attach without nft", calls.configure(nullptr, red, type));
        call_faults::fail_call("creat", EROFS);
        note("attach without a file", calls.configure(nullptr, red, type));
    }

    void change(const family_calls& calls) {
        const acl_change_notice present = notice(calls.list, true);
        const acl_change_notice absent = notice(calls.list, false);
        note("change", calls.changed(&present));
        note("removal", calls.changed(&absent));
        note("no notice", calls.changed(nullptr));
        fake_platform::fail("datastore_list_fetch", EIO);
        note("change without an entry", calls.changed(&present));
        stub_commands::fail("ip netns exec", 1);
        note("change without nft", calls.changed(&present));
        stub_commands::fail("ip netns exec", 1);
        note("removal without nft", calls.changed(&absent));
        call_faults::fail_call("creat", EROFS);
        note("change without a file", calls.changed(&present));
    }

    void go_through(const family_calls& calls) {
        note("attach", calls.configure(nullptr, red, calls.family.ssh_type));
        note("attach again", calls.configure(nullptr, red, calls.family.ssh_type));
        note("attach elsewhere", calls.configure(nullptr, blue, calls.family.netconf_type));
        change(calls);
        stub_commands::fail("ip netns exec", 1);
        calls.remove(blue, calls.family.netconf_type);
        note("detach without nft", 0);
        calls.remove(blue, calls.family.netconf_type);
        name(blue->*calls.family.netconf_name, "");
        note("detach one", 0);
        calls.remove(red, calls.family.ssh_type);
        note("detach the other", 0);
        calls.remove(red, calls.family.ssh_type);
        note("detach what is not attached", 0);
        name_list(calls);
        fail_each_step(calls);
        go_without_list(calls);
    }

    void go_without_list(const family_calls& calls) {
        const acl_change_notice present = notice(calls.list, true);
        for (const platform_status status : {DATASTORE_NO_SUCH_LIST, DATASTORE_NO_SUCH_TREE}) {
            fake_platform::fail("datastore_list_get", status);
            note("attach, status " + std::to_string(status), calls.configure(nullptr, red, calls.family.ssh_type));
        }
        const bool is_ipv6 = &calls.family == &ipv6_acl_family;
        fake_platform::set_list(is_ipv6 ? ipv6_list_path(calls.list) : list_path(calls.list), {{"10", "no record"}});
        note("attach a garbled list", calls.configure(nullptr, red, calls.family.ssh_type));
        note("change to a garbled list", calls.changed(&present));
    }
};

}  // namespace

TEST_F(subscription_account_test, ipv4) {
    set_list("ops", {ipv4_entry(), ipv4_entry(deny)});
    name_list(ipv4_calls);
    account();
    go_through(ipv4_calls);
    expect_golden("acl/golden/ipv4_account", text);
}

TEST_F(subscription_account_test, ipv6) {
    set_ipv6_list("six", {ipv6_entry(), ipv6_entry(deny)});
    name_list(ipv6_calls);
    account();
    go_through(ipv6_calls);
    expect_golden("acl/golden/ipv6_account", text);
}
