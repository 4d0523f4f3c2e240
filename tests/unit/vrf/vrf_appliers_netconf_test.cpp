#include "vrf_appliers_test.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

using netconf_vrf_test = vrf_appliers_test;

TEST_F(netconf_vrf_test, a_first_item_with_its_namespace_starts_a_server) {
    add_namespace("red");
    EXPECT_EQ(netconf("red", created, {"four", "six"}), 0);
    EXPECT_THAT(trail(),
                ElementsAre(copy_for("red"), "mpp_namespace_created(vrf-red)", "vrf_table_lookup(red)",
                            "$ systemctl daemon-reload", "mpp_vrf_set(64, red)", "mpp_vrf_nft_init(red)",
                            "mpp_vrf_block(red)", "$ systemctl restart sshd_service_red", "mpp_vrf_unblock(red)",
                            "create_nft_table(red)", "ssh_configure_v4acl(red, 1)", "ssh_configure_v6acl(red, 3)"));
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + netconf_line + "Port 830\n");
    const vrf_node* node = find_vrf_node("red");
    ASSERT_NE(node, nullptr);
    EXPECT_STREQ(node->lines[VRF_NETCONF_SUBSYSTEM].current, "/pkg/bin/netconf_sshd_proxy -i 0 -o 1");
    EXPECT_STREQ(node->netconf_v4_acl, "four");
    EXPECT_STREQ(node->netconf_v6_acl, "six");
    EXPECT_STREQ(node->ssh_v4_acl, "");
    EXPECT_EQ(node->server_started, 1u);
}

TEST_F(netconf_vrf_test, prints_its_item_in_debug) {
    netconf("red", created, {"four", nullptr});
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Event:=3, Config:=ssh server netconf vrf"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Netconf v4 acl name = four, Netconf v6 acl name = "));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("vrf:=red, ssh server will be started"));
}

TEST_F(netconf_vrf_test, a_known_vrfs_file_gets_the_lines) {
    ssh("red", created);
    EXPECT_EQ(netconf("red", created), 0);
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + "Port 22\n" + netconf_line + "Port 830\n");
    EXPECT_EQ(count_of("red"), 2);
}

TEST_F(netconf_vrf_test, after_a_failure_the_service_is_set_with_its_own_code) {
    agent_handles.respawn_count = 3;
    EXPECT_EQ(netconf("red", created), 0);
    EXPECT_THAT(trail(), ElementsAre("mpp_vrf_set(64, red)", copy_for("red")));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("ssh_cfg_agent respawn count: 3"));
}

TEST_F(netconf_vrf_test, a_configured_port_replaces_the_ports_line) {
    server_config.parameters[SERVER_NETCONF_PORT].current = "831";
    EXPECT_EQ(netconf("red", created), 0);
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + netconf_line);
    write_file(server_file("red"), std::string(default_file) + netconf_line + "Port 830\n");
    netconf("red", created);
    netconf("red", deleted);
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + "Port 830\n");
}

TEST_F(netconf_vrf_test, the_default_vrf_is_treated_like_any_other) {
    EXPECT_EQ(netconf("default", created), 0);
    EXPECT_EQ(default_vrf_configured, 0u);
    EXPECT_EQ(netconf("default", deleted), 0);
    EXPECT_THAT(trail(), Not(Contains("telemetry")));
}

TEST_F(netconf_vrf_test, a_modification_replaces_the_lists) {
    add_namespace("red");
    netconf("red", created, {"old4", "old6"});
    ssh("red", created, {"ssh4", "ssh6"});
    forget();
    EXPECT_EQ(netconf("red", changed, {"new4", "new6"}), 0);
    EXPECT_THAT(trail(), ElementsAre("create_nft_table(red)", "mpp_vrf_block(red)", "ssh_flush_nft_table(red, 1)",
                                     "ssh_flush_nft_table(red, 3)", "ssh_configure_v4acl(red, 1)",
                                     "ssh_configure_v6acl(red, 3)", "mpp_vrf_unblock(red)", "release_unused_acls()"));
    EXPECT_STREQ(find_vrf_node("red")->netconf_v4_acl, "new4");
    EXPECT_STREQ(find_vrf_node("red")->netconf_v6_acl, "new6");
    EXPECT_STREQ(find_vrf_node("red")->ssh_v4_acl, "ssh4");
    EXPECT_STREQ(find_vrf_node("red")->ssh_v6_acl, "ssh6");
}

TEST_F(netconf_vrf_test, failures_have_their_own_texts) {
    add_namespace("red");
    netconf("red", created);
    const std::vector<std::vector<std::string>> failures = {
        {"ssh_configure_v6acl(red, 3)", "Failed to configure netconf v6 acl = six",
         "Failed to configure netconf v6 acl for vrf:  red"},
        {"ssh_configure_v4acl(red, 1)", "Failed to configure netconf v4 acl = four",
         "Failed to configure netconf v4 acl for vrf:  red"},
        {"ssh_flush_nft_table(red, 3)", "sshd_apply_conf_netconf_vrf: Failed to flush nft table",
         "Failed to flush nft table vrf:  red"},
        {"ssh_flush_nft_table(red, 1)", "sshd_apply_conf_netconf_vrf: Failed to flush nft table",
         "Failed to flush nft table vrf:  red"},
        {"create_nft_table(red)", "sshd_apply_conf_netconf_vrf: Failed to create nft table",
         "Failed to create nft table vrf:  red"},
    };
    for (const auto& failure : failures) {
        netconf("red", changed);
        forget();
        fail_call(failure[0]);
        EXPECT_EQ(netconf("red", changed, {"four", "six"}), 0);
        EXPECT_THAT(trail(), Contains(failure[0]));
        clear_failed_calls();
        EXPECT_THAT(fake_platform::debug_texts(), Contains(failure[1]));
        EXPECT_THAT(fake_platform::log_texts(), ElementsAre(log_of_details(failure[2])));
    }
}

TEST_F(netconf_vrf_test, the_server_is_removed_with_the_last_item) {
    add_namespace("red");
    netconf("red", created, {"four", "six"});
    forget();
    EXPECT_EQ(netconf("red", deleted), 0);
    EXPECT_THAT(trail(),
                ElementsAre("ssh_remove_v4acl_config(red, 1)", "ssh_remove_v6acl_config(red, 3)",
                            "$ systemctl stop sshd_service_red", "mpp_vrf_unblock(red)", "mpp_vrf_unset(64, red)"));
    EXPECT_EQ(find_vrf_node("red"), nullptr);
    EXPECT_FALSE(path_exists(server_file("red")));
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("vrf:=red, refCnt:=0, ssh server will be stopped if refcnt is 0"));
}

TEST_F(netconf_vrf_test, ssh_keeps_the_server_with_its_own_lines) {
    add_namespace("red");
    ssh("red", created, {"ssh4"});
    netconf("red", created, {"four"});
    forget();
    EXPECT_EQ(netconf("red", deleted), 0);
    EXPECT_THAT(trail(),
                ElementsAre("ssh_remove_v4acl_config(red, 1)", "mpp_vrf_block(red)",
                            "$ systemctl restart sshd_service_red", "mpp_vrf_unblock(red)", "mpp_vrf_unset(64, red)"));
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + "Port 22\n");
    const vrf_node* node = find_vrf_node("red");
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->reference_count, 1);
    EXPECT_EQ(node->lines[VRF_NETCONF_SUBSYSTEM].current, nullptr);
    EXPECT_STREQ(node->netconf_v4_acl, "");
    EXPECT_STREQ(node->ssh_v4_acl, "ssh4");
}

// Unlike the SSH item, its removal always restarts the server and counts it as started.
TEST_F(netconf_vrf_test, a_remaining_server_is_always_restarted) {
    ssh("red", created);
    netconf("red", created);
    write_file(server_file("red"), default_file);
    create_sshd_service_config_file("vrf-red");
    ASSERT_EQ(find_vrf_node("red")->server_started, 0u);
    forget();
    EXPECT_EQ(netconf("red", deleted), 0);
    EXPECT_THAT(trail(), Contains("$ systemctl restart sshd_service_red"));
    EXPECT_EQ(find_vrf_node("red")->server_started, 1u);
}

TEST_F(netconf_vrf_test, a_remaining_server_without_its_namespace_does_not_count_as_started) {
    ssh("red", created);
    netconf("red", created);
    EXPECT_EQ(netconf("red", deleted), 0);
    EXPECT_EQ(find_vrf_node("red")->server_started, 0u);
}

TEST_F(netconf_vrf_test, both_services_share_one_unit_and_one_server) {
    add_namespace("red");
    ssh("red", created);
    netconf("red", created);
    EXPECT_EQ(count_of("red"), 2);
    EXPECT_EQ(server_config.nodes->next, nullptr);
    EXPECT_THAT(stub_commands::log_of("systemctl restart"),
                ElementsAre("systemctl restart sshd_service_red", "systemctl restart sshd_service_red"));
    EXPECT_TRUE(fake_platform::vrf_set(MPP_SERVICE_SSH, "red"));
    EXPECT_TRUE(fake_platform::vrf_set(MPP_SERVICE_NETCONF, "red"));
}

TEST_F(netconf_vrf_test, a_port_line_that_cannot_be_removed_leaves_the_count) {
    add_namespace("red");
    netconf("red", created, {"four"});
    std::filesystem::create_directory(paths::temporary_file);
    forget();
    EXPECT_EQ(netconf("red", deleted), 0);
    EXPECT_THAT(trail(), testing::Each(not_as_configured("red")));
    EXPECT_EQ(trail().size(), 2u);
    EXPECT_EQ(count_of("red"), 1);
    EXPECT_STREQ(find_vrf_node("red")->netconf_v4_acl, "four");
}

// Another item recreates a missing file from the default file, with only its own lines.
TEST_F(netconf_vrf_test, a_missing_file_is_copied_again) {
    netconf("red", created);
    std::filesystem::remove(server_file("red"));
    EXPECT_EQ(ssh("red", created), 0);
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + "Port 22\n");
}

}  // namespace
