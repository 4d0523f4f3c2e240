#include "vrf_appliers_test.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

class default_vrf_test : public vrf_appliers_test {
  protected:
    static constexpr char unit[] = "$ systemctl restart sshd_service_default";

    default_vrf_test() {
        add_namespace("default");
        create_sshd_service_config_file("vrf-default");
        forget();
    }
};

TEST_F(default_vrf_test, its_item_is_recorded_and_published) {
    EXPECT_EQ(ssh("default", created), 0);
    EXPECT_EQ(default_vrf_configured, 1u);
    EXPECT_EQ(trail().back(), "telemetry");
    forget();
    EXPECT_EQ(ssh("default", deleted), 0);
    EXPECT_EQ(default_vrf_configured, 0u);
    EXPECT_EQ(trail().back(), "telemetry");
}

TEST_F(default_vrf_test, other_vrfs_are_not_published) {
    ssh("red", created);
    ssh("red", deleted);
    ssh("defaults", created);
    EXPECT_THAT(trail(), Not(Contains("telemetry")));
    EXPECT_EQ(default_vrf_configured, 0u);
}

TEST_F(default_vrf_test, a_failure_leaves_it_unpublished) {
    fake_platform::fail("mpp_namespace_created", EIO);
    ssh("default", created);
    EXPECT_THAT(trail(), Not(Contains("telemetry")));
    EXPECT_EQ(default_vrf_configured, 1u);
}

TEST_F(default_vrf_test, the_protocol_item_starts_its_server_with_the_protocol_line) {
    EXPECT_EQ(protocol(created), 0);
    EXPECT_THAT(trail(),
                ElementsAre("create_nft_table(default)", "mpp_vrf_set(1, default)", copy_for("default"), "telemetry",
                            "mpp_vrf_nft_init(default)", "mpp_vrf_block(default)", unit, "mpp_vrf_unblock(default)"));
    EXPECT_EQ(read_file(paths::server_file), std::string(default_file) + "Protocol 2\n");
    EXPECT_EQ(read_file(server_file("default")), std::string(default_file) + "Port 22\nProtocol 2\n");
    EXPECT_EQ(count_of("default"), 1);
    EXPECT_STREQ(server_config.parameters[SERVER_PROTOCOL].current, "2");
    EXPECT_EQ(default_vrf_configured, 0u);
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Event:=3, Config:=ssh server v2"));
}

TEST_F(default_vrf_test, a_unit_removed_with_an_earlier_namespace_is_recreated) {
    remove_sshd_service_config_file("vrf-default");
    forget();
    EXPECT_EQ(protocol(created), 0);
    EXPECT_THAT(trail(),
                ElementsAre("create_nft_table(default)", "vrf_table_lookup(default)", "$ systemctl daemon-reload",
                            "mpp_vrf_set(1, default)", copy_for("default"), "telemetry", "mpp_vrf_nft_init(default)",
                            "mpp_vrf_block(default)", unit, "mpp_vrf_unblock(default)"));
    EXPECT_TRUE(path_exists(unit_file("default")));
    EXPECT_TRUE(path_exists(environment_file("default")));
}

TEST_F(default_vrf_test, without_its_namespace_no_unit_is_created) {
    remove_sshd_service_config_file("vrf-default");
    remove_namespace("default");
    EXPECT_EQ(protocol(created), 0);
    EXPECT_FALSE(path_exists(unit_file("default")));
}

// The server starts with its namespace and uses the file that was prepared earlier.
TEST_F(default_vrf_test, without_its_namespace_the_servers_file_is_prepared) {
    remove_sshd_service_config_file("vrf-default");
    remove_namespace("default");
    fail_call("create_nft_table(default)");
    forget();
    EXPECT_EQ(protocol(created), 0);
    EXPECT_THAT(trail(), ElementsAre("mpp_vrf_set(1, default)", copy_for("default"), "telemetry"));
    EXPECT_EQ(read_file(server_file("default")), std::string(default_file) + "Port 22\nProtocol 2\n");
    EXPECT_THAT(fake_platform::not_in_force(), testing::ElementsAre());
}

TEST_F(default_vrf_test, a_unit_that_cannot_be_recreated_is_reported) {
    remove_sshd_service_config_file("vrf-default");
    fake_platform::fail("vrf_table_lookup", ENOENT);
    EXPECT_EQ(protocol(created), 0);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Failed to create systemd service and config file for vrf:=default"));
    EXPECT_EQ(read_file(server_file("default")), std::string(default_file) + "Port 22\nProtocol 2\n");
}

// The walk over the files starts the server; only VRF items and namespaces set the flag.
TEST_F(default_vrf_test, the_protocol_item_does_not_set_the_started_flag) {
    protocol(created);
    EXPECT_EQ(find_vrf_node("default")->server_started, 0u);
}

TEST_F(default_vrf_test, the_protocol_item_publishes_a_known_vrf_twice) {
    ssh("default", created);
    forget();
    EXPECT_EQ(protocol(created), 0);
    EXPECT_THAT(trail(), ElementsAre("telemetry", "create_nft_table(default)", "mpp_vrf_set(1, default)", "telemetry",
                                     "mpp_vrf_block(default)", unit, "mpp_vrf_unblock(default)"));
    EXPECT_EQ(count_of("default"), 2);
}

TEST_F(default_vrf_test, the_protocol_line_is_written_to_every_vrfs_file) {
    ssh("red", created);
    EXPECT_EQ(protocol(created), 0);
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + "Port 22\nProtocol 2\n");
    EXPECT_EQ(protocol(deleted), 0);
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + "Port 22\n");
    EXPECT_EQ(read_file(paths::server_file), default_file);
}

TEST_F(default_vrf_test, without_other_users_the_server_is_removed_with_the_protocol_item) {
    protocol(created);
    forget();
    EXPECT_EQ(protocol(deleted), 0);
    EXPECT_THAT(trail(), ElementsAre("mpp_vrf_unset(1, default)", "telemetry", "$ systemctl stop sshd_service_default",
                                     "mpp_vrf_unblock(default)"));
    EXPECT_EQ(find_vrf_node("default"), nullptr);
    EXPECT_FALSE(path_exists(server_file("default")));
    EXPECT_EQ(server_config.parameters[SERVER_PROTOCOL].current, nullptr);
    EXPECT_EQ(read_file(paths::server_file), default_file);
}

TEST_F(default_vrf_test, while_the_vrf_item_exists_only_the_count_decreases) {
    ssh("default", created);
    protocol(created);
    forget();
    EXPECT_EQ(protocol(deleted), 0);
    EXPECT_EQ(count_of("default"), 1);
    EXPECT_EQ(read_file(server_file("default")), std::string(default_file) + "Port 22\n");
    EXPECT_THAT(trail(), ElementsAre("telemetry", "mpp_vrf_block(default)", unit, "mpp_vrf_unblock(default)"));
}

TEST_F(default_vrf_test, while_the_protocol_item_exists_the_port_line_stays) {
    ssh("default", created);
    protocol(created);
    forget();
    EXPECT_EQ(ssh("default", deleted), 0);
    EXPECT_EQ(read_file(server_file("default")), std::string(default_file) + "Port 22\nProtocol 2\n");
    EXPECT_EQ(count_of("default"), 1);
    EXPECT_EQ(default_vrf_configured, 0u);
    // The file did not change, so the server keeps running.
    EXPECT_THAT(trail(), ElementsAre("telemetry"));
}

TEST_F(default_vrf_test, with_both_items_removed_the_server_is_gone) {
    ssh("default", created);
    protocol(created);
    ssh("default", deleted);
    EXPECT_EQ(protocol(deleted), 0);
    EXPECT_EQ(find_vrf_node("default"), nullptr);
    EXPECT_FALSE(path_exists(server_file("default")));
}

TEST_F(default_vrf_test, netconf_keeps_the_server_without_the_ssh_port) {
    netconf("default", created);
    protocol(created);
    forget();
    EXPECT_EQ(protocol(deleted), 0);
    EXPECT_EQ(count_of("default"), 1);
    EXPECT_EQ(read_file(server_file("default")), std::string(default_file) + netconf_line + "Port 830\n");
    EXPECT_THAT(trail(), ElementsAre("mpp_vrf_unset(1, default)", "telemetry", "mpp_vrf_block(default)", unit,
                                     "mpp_vrf_unblock(default)"));
}

// The protection service still has the VRF's SSH service set.
TEST_F(default_vrf_test, with_two_users_left_the_service_stays_set) {
    netconf("default", created);
    netconf("default", created);
    protocol(created);
    forget();
    protocol(deleted);
    EXPECT_EQ(count_of("default"), 2);
    EXPECT_THAT(trail(), Not(Contains("mpp_vrf_unset(1, default)")));
}

TEST_F(default_vrf_test, an_unchanged_file_leaves_the_service_set) {
    protocol(created);
    write_file(server_file("default"), std::string(default_file) + "Protocol 2\n");
    forget();
    protocol(deleted);
    EXPECT_THAT(trail(), Not(Contains("mpp_vrf_unset(1, default)")));
}

TEST_F(default_vrf_test, deleting_the_protocol_without_a_vrf_is_published_and_written) {
    write_file(paths::server_file, std::string(default_file) + "Protocol 2\n");
    EXPECT_EQ(protocol(deleted), 0);
    EXPECT_THAT(trail(), ElementsAre("telemetry"));
    EXPECT_EQ(read_file(paths::server_file), default_file);
}

TEST_F(default_vrf_test, a_failed_step_of_the_protocol_item_leaves_the_line_unwritten) {
    fail_call("create_nft_table(default)");
    EXPECT_EQ(protocol(created), 0);
    EXPECT_THAT(trail(), ElementsAre("create_nft_table(default)",
                                     "enforcement_failed(server default, its nftables tables could not be created)"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("sshd_apply_ver_func: Failed to create nft table"));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre(log_of_details("Failed to create nft table vrf:  default")));
    EXPECT_EQ(read_file(paths::server_file), default_file);
    EXPECT_STREQ(server_config.parameters[SERVER_PROTOCOL].current, "2");
}

TEST_F(default_vrf_test, a_file_that_cannot_be_prepared_leaves_the_protocol_line_unwritten) {
    command_trail::fail_shell("cp ", ENOMEM);
    EXPECT_EQ(protocol(created), 0);
    EXPECT_THAT(trail(), ElementsAre("create_nft_table(default)", "mpp_vrf_set(1, default)", copy_for("default"),
                                     not_as_configured("default", "cannot be made from the default file")));
    EXPECT_EQ(read_file(paths::server_file), default_file);
}

TEST_F(default_vrf_test, a_port_line_that_cannot_be_removed_stops_the_removal) {
    protocol(created);
    std::filesystem::create_directory(paths::temporary_file);
    forget();
    EXPECT_EQ(protocol(deleted), 0);
    EXPECT_THAT(trail(), testing::Each(not_as_configured("default")));
    EXPECT_EQ(trail().size(), 1u);
    EXPECT_EQ(count_of("default"), 1);
    EXPECT_EQ(server_config.parameters[SERVER_PROTOCOL].current, nullptr);
}

TEST_F(default_vrf_test, exhausted_memory_ends_the_protocol_item) {
    allocation_failure::fail_next();
    EXPECT_EQ(protocol(created), 1u);
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_EQ(read_file(paths::server_file), default_file);
}

TEST_F(default_vrf_test, the_protocol_item_counts_once_in_the_scan) {
    agent_handles.initial_scan_complete = 0;
    protocol(created);
    ssh("default", created);
    netconf("default", created);
    EXPECT_EQ(count_of("default"), 3);
}

TEST_F(default_vrf_test, setting_the_protocol_again_does_not_count) {
    protocol(created);
    protocol(changed);
    EXPECT_EQ(count_of("default"), 1);
}

TEST_F(default_vrf_test, an_unused_node_that_was_kept_is_used_again) {
    protocol(created);
    // Without the line in the default file there is no walk that would remove the node.
    write_file(paths::server_file, default_file);
    protocol(deleted);
    EXPECT_EQ(count_of("default"), 0);
    ASSERT_NE(find_vrf_node("default"), nullptr);
    EXPECT_EQ(protocol(created), 0);
    EXPECT_EQ(count_of("default"), 1);
}

}  // namespace
