#include "vrf_appliers_test.h"

#include "../account.h"
#include "call_faults.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;

using ssh_vrf_test = vrf_appliers_test;

constexpr char block_ssh_ipv4[] = "mpp_service_block(1, 4, red)";
constexpr char unprepared[] = "enforcement_failed(server red, it could not be set up completely; the journal says why)";
constexpr char report_ssh_ipv4[] = "enforcement_failed(rules red ssh ipv4, access list four has not been loaded)";

TEST_F(ssh_vrf_test, a_first_item_with_its_namespace_starts_a_server) {
    add_namespace("red");
    EXPECT_EQ(ssh("red", created), 0);
    EXPECT_THAT(trail(), ElementsAre(copy_for("red"), "mpp_namespace_created(vrf-red)", "vrf_table_lookup(red)",
                                     "$ systemctl daemon-reload", "mpp_vrf_set(1, red)", "mpp_vrf_nft_init(red)",
                                     "mpp_vrf_block(red)", "$ systemctl restart sshd_service_red",
                                     "mpp_vrf_unblock(red)", "create_nft_table(red)"));
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + "Port 22\n");
    EXPECT_TRUE(path_exists(unit_file("red")));
    EXPECT_TRUE(path_exists(environment_file("red")));
    ASSERT_NE(find_vrf_node("red"), nullptr);
    EXPECT_EQ(count_of("red"), 1);
    EXPECT_EQ(find_vrf_node("red")->server_started, 1u);
}

TEST_F(ssh_vrf_test, file_and_unit_are_complete_when_the_server_starts) {
    add_namespace("red");
    stub_commands::set_hook("systemctl restart sshd_service_red",
                            "cat /var/opt/norvo/norvossh/sshd_config_red > /tmp/seen_by_server; "
                            "cat /etc/systemd/system/sshd_service_red.service > /tmp/unit_seen");
    ssh("red", created);
    EXPECT_EQ(read_file("/tmp/seen_by_server"), std::string(default_file) + "Port 22\n");
    EXPECT_EQ(read_file("/tmp/unit_seen"), read_file(unit_file("red")));
}

TEST_F(ssh_vrf_test, a_first_item_without_namespace_only_prepares_the_file) {
    EXPECT_EQ(ssh("red", created, {"four", "six"}), 0);
    EXPECT_THAT(trail(), ElementsAre(copy_for("red")));
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + "Port 22\n");
    EXPECT_FALSE(path_exists(unit_file("red")));
    EXPECT_EQ(find_vrf_node("red")->server_started, 0u);
    EXPECT_STREQ(find_vrf_node("red")->ssh_v4_acl, "four");
    EXPECT_STREQ(find_vrf_node("red")->ssh_v6_acl, "six");
}

TEST_F(ssh_vrf_test, the_first_items_lists_are_attached_when_the_server_runs) {
    add_namespace("red");
    EXPECT_EQ(ssh("red", created, {"four", "six"}), 0);
    const std::vector<std::string> calls = trail();
    ASSERT_GE(calls.size(), 3u);
    EXPECT_THAT(std::vector<std::string>(calls.end() - 3, calls.end()),
                ElementsAre("create_nft_table(red)", "ssh_configure_v4acl(red, 0)", "ssh_configure_v6acl(red, 2)"));
}

TEST_F(ssh_vrf_test, prints_its_item_in_debug) {
    ssh("red", created);
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Event:=3, Config:=ssh server vrf"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("vrfnode->vrf_name: , name:red"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("vrf:=red, ssh server will be started"));
    fake_platform::clear_reports();
    ssh("red", created);
    EXPECT_THAT(fake_platform::debug_texts(), Contains("vrfnode->vrf_name: red, name:red"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("vrf:=red, refCnt:=1, ssh server already running"));
}

TEST_F(ssh_vrf_test, a_missing_name_is_returned_to_the_datastore) {
    const datastore_change change = {created, nullptr, nullptr, 0, 0};
    const datastore_path_components short_path = {nullptr, 0};
    for (const applier handler : {sshd_apply_vrf_func, sshd_apply_conf_netconf_vrf}) {
        fake_platform::clear_reports();
        EXPECT_EQ(apply(handler, "vrf", nullptr, change), 1u);
        EXPECT_THAT(fake_platform::debug_texts(), Contains("vrf name should not be NULL"));
        EXPECT_EQ(handler(&change, &short_path), 1u);
        EXPECT_EQ(handler(&change, nullptr), 1u);
    }
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_EQ(server_config.nodes, nullptr);
}

TEST_F(ssh_vrf_test, exhausted_memory_is_returned_to_the_datastore) {
    allocation_failure::fail_next();
    EXPECT_EQ(ssh("red", created), 1u);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Error:=Cannot allocate memory(0xc), vrfname:=red, memory allocation failed"));
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_EQ(server_config.nodes, nullptr);
}

TEST_F(ssh_vrf_test, a_value_that_cannot_be_unpacked_is_logged_and_accepted) {
    const datastore_change garbled = {created, nullptr, "\x07", 0, 1};
    EXPECT_EQ(apply(sshd_apply_vrf_func, "vrf", "red", garbled), 0u);
    const datastore_change missing = {created, nullptr, nullptr, 0, 0};
    EXPECT_EQ(apply(sshd_apply_vrf_func, "vrf", "red", missing), 0u);
    EXPECT_EQ(fake_platform::log_lines().size(), 2u);
    EXPECT_EQ(fake_platform::log_lines().front().name, "ERR_DATASTORE_UNPACK");
    EXPECT_THAT(fake_platform::log_lines().front().text, HasSubstr("Path:=red, Failed to unpack datastore item"));
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_EQ(server_config.nodes, nullptr);
}

TEST_F(ssh_vrf_test, an_event_that_neither_sets_nor_deletes_does_nothing) {
    EXPECT_EQ(ssh("red", 0), 0);
    EXPECT_EQ(netconf("red", 8), 0);
    EXPECT_EQ(protocol(0), 0);
    EXPECT_EQ(server_config.nodes, nullptr);
    EXPECT_EQ(read_file(paths::server_file), default_file);
}

// References: a new item counts; a replayed one counts only while the stored configuration is being read.

TEST_F(ssh_vrf_test, only_a_new_item_counts_after_the_scan) {
    ssh("red", created);
    EXPECT_EQ(apply(sshd_apply_vrf_func, "vrf", "red", changed, {}, false), 0);
    EXPECT_EQ(count_of("red"), 1);
    EXPECT_EQ(ssh("red", created), 0);
    EXPECT_EQ(count_of("red"), 2);
}

TEST_F(ssh_vrf_test, every_item_counts_once_during_the_scan) {
    agent_handles.initial_scan_complete = 0;
    EXPECT_EQ(apply(sshd_apply_vrf_func, "vrf", "red", changed, {}, false), 0);
    EXPECT_EQ(count_of("red"), 1);
    EXPECT_EQ(apply(sshd_apply_conf_netconf_vrf, "vrf-netconf", "red", changed, {}, false), 0);
    EXPECT_EQ(count_of("red"), 2);
    EXPECT_EQ(apply(sshd_apply_vrf_func, "vrf", "green", created, {}, false), 0);
    EXPECT_EQ(count_of("green"), 1);
}

TEST_F(ssh_vrf_test, a_modification_never_counts) {
    agent_handles.initial_scan_complete = 0;
    ssh("red", created);
    ssh("red", changed);
    EXPECT_EQ(apply(sshd_apply_vrf_func, "vrf", "red", created, {}, true), 0);
    EXPECT_EQ(count_of("red"), 1);
}

// After a failure of the agent the server may still run with this file; its service is set again without a restart.

TEST_F(ssh_vrf_test, after_a_failure_a_running_server_is_set_again_and_not_restarted) {
    agent_handles.respawn_count = 2;
    agent_handles.initial_scan_complete = 0;
    add_namespace("red");
    write_file(server_file("red"), std::string(default_file) + "Port 22\n");
    stub_commands::set_output("systemctl is-active sshd_service_red", "active\n");
    EXPECT_EQ(ssh("red", created, {"four"}), 0);
    EXPECT_THAT(trail(), ElementsAre("mpp_vrf_set(1, red)",
                                     "$ systemctl is-active sshd_service_red > /tmp/norvo_ssh_service.txt",
                                     "create_nft_table(red)", "ssh_configure_v4acl(red, 0)"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("ssh_cfg_agent respawn count: 2"));
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + "Port 22\n");
    EXPECT_EQ(find_vrf_node("red")->server_started, 0u);
}

TEST_F(ssh_vrf_test, a_fresh_start_sets_nothing_before_the_server_starts) {
    agent_handles.respawn_count = 1;
    ssh("red", created);
    EXPECT_THAT(trail(), Not(Contains("mpp_vrf_set(1, red)")));
    EXPECT_THAT(fake_platform::debug_texts(), Not(Contains(HasSubstr("respawn count"))));
}

TEST_F(ssh_vrf_test, a_running_server_with_a_new_port_line_is_restarted) {
    add_namespace("red");
    write_file(server_file("red"), default_file);
    stub_commands::set_output("systemctl is-active sshd_service_red", "active\n");
    EXPECT_EQ(ssh("red", created), 0);
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + "Port 22\n");
    EXPECT_THAT(trail(), Contains("$ systemctl restart sshd_service_red"));
    EXPECT_EQ(find_vrf_node("red")->server_started, 1u);
}

// Each failed step stops the handling there; the configuration is accepted nevertheless.

TEST_F(ssh_vrf_test, a_file_that_cannot_be_prepared_stops_the_handling) {
    add_namespace("red");
    command_trail::fail_shell("cp ", ENOMEM);
    EXPECT_EQ(ssh("red", created, {"four"}), 0);
    EXPECT_THAT(trail(), ElementsAre(copy_for("red"), not_as_configured("red", "cannot be made from the default file"),
                                     unprepared, "reload_acls(red)", block_ssh_ipv4, report_ssh_ipv4));
    EXPECT_STREQ(find_vrf_node("red")->ssh_v4_acl, "four");
    EXPECT_EQ(count_of("red"), 1);
}

TEST_F(ssh_vrf_test, a_port_line_that_cannot_be_added_stops_the_handling) {
    add_namespace("red");
    std::filesystem::create_directory(paths::temporary_file);
    EXPECT_EQ(ssh("red", created, {"four"}), 0);
    EXPECT_THAT(trail(), ElementsAre(copy_for("red"), not_as_configured("red"), unprepared, "reload_acls(red)",
                                     block_ssh_ipv4, report_ssh_ipv4));
}

TEST_F(ssh_vrf_test, a_namespace_that_is_not_accepted_stops_the_handling) {
    add_namespace("red");
    fake_platform::fail("mpp_namespace_created", EIO);
    EXPECT_EQ(ssh("red", created, {"four"}), 0);
    EXPECT_THAT(trail(), ElementsAre(copy_for("red"), "mpp_namespace_created(vrf-red)", unprepared, "reload_acls(red)",
                                     block_ssh_ipv4, report_ssh_ipv4));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("MPP nns create API failed, Input/output error"));
    EXPECT_TRUE(traced({"vrf-red", "5"}));
    EXPECT_STREQ(find_vrf_node("red")->ssh_v4_acl, "four");
    EXPECT_EQ(find_vrf_node("red")->server_started, 0u);
}

TEST_F(ssh_vrf_test, a_unit_that_cannot_be_created_stops_the_handling) {
    add_namespace("red");
    fake_platform::fail("vrf_table_lookup", ENOENT);
    EXPECT_EQ(ssh("red", created), 0);
    EXPECT_THAT(trail(), ElementsAre(copy_for("red"), "mpp_namespace_created(vrf-red)", "vrf_table_lookup(red)",
                                     "enforcement_failed(unit red, the number of the VRF is unknown: No such file or "
                                     "directory)",
                                     unprepared));
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Failed to create systemd service and config file for vrf:=red"));
    EXPECT_EQ(find_vrf_node("red")->server_started, 0u);
}

// systemd or an operator may start the server later; its ports must not be open then.
TEST_F(ssh_vrf_test, a_server_that_fails_to_start_has_its_lists_loaded_and_is_not_marked_as_started) {
    add_namespace("red");
    command_trail::fail_shell("systemctl restart", ENOMEM);
    EXPECT_EQ(ssh("red", created, {"four"}), 0);
    const std::vector<std::string> calls = trail();
    const auto restart = std::find(calls.begin(), calls.end(), "$ systemctl restart sshd_service_red");
    ASSERT_NE(restart, calls.end());
    EXPECT_THAT(std::vector<std::string>(restart + 1, calls.end()),
                ElementsAre("enforcement_failed(server red, systemctl restart sshd_service_red failed)",
                            "reload_acls(red)", block_ssh_ipv4, report_ssh_ipv4));
    EXPECT_EQ(find_vrf_node("red")->server_started, 0u);
}

TEST_F(ssh_vrf_test, a_server_that_starts_later_gets_the_lists_that_failed_before_its_vrf_is_unblocked) {
    add_namespace("red");
    command_trail::fail_shell("systemctl restart", ENOMEM);
    ssh("red", created, {"four"});
    command_trail::begin();
    forget();
    EXPECT_EQ(ssh_process_restart(1, "red"), 0);
    EXPECT_THAT(trail(), ElementsAre("mpp_vrf_block(red)", "$ systemctl restart sshd_service_red",
                                     "enforcement_restored(server red)", "reload_acls(red)", "mpp_vrf_unblock(red)"));
}

TEST_F(ssh_vrf_test, a_table_that_cannot_be_created_stops_the_handling) {
    add_namespace("default");
    fail_call("create_nft_table(default)");
    EXPECT_EQ(ssh("default", created, {"four"}), 0);
    EXPECT_THAT(trail(), Contains("create_nft_table(default)"));
    EXPECT_TRUE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "default"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("sshd_apply_vrf_func: Failed to create nft table"));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre(log_of_details("Failed to create nft table vrf:  default")));
    EXPECT_TRUE(traced({"default"}));
}

TEST_F(ssh_vrf_test, a_list_that_cannot_be_attached_blocks_its_family_only) {
    add_namespace("default");
    fail_call("ssh_configure_v4acl(default, 0)");
    EXPECT_EQ(ssh("default", created, {"four", "six"}), 0);
    const std::vector<std::string> calls = trail();
    ASSERT_GE(calls.size(), 4u);
    EXPECT_THAT(std::vector<std::string>(calls.end() - 4, calls.end()),
                ElementsAre("ssh_configure_v4acl(default, 0)", "mpp_service_block(1, 4, default)",
                            "ssh_configure_v6acl(default, 2)",
                            "enforcement_failed(rules default ssh ipv4, access list four has not been loaded)"));
    EXPECT_FALSE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV6, "default"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Failed to configure v4 acl = four"));
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(log_of_details("Failed to configure v4 acl for vrf:  default")));
}

TEST_F(ssh_vrf_test, an_ipv6_list_that_cannot_be_attached_blocks_its_family_only) {
    add_namespace("default");
    fail_call("ssh_configure_v6acl(default, 2)");
    EXPECT_EQ(ssh("default", created, {nullptr, "six"}), 0);
    EXPECT_THAT(trail(), Contains("mpp_service_block(1, 6, default)"));
    EXPECT_FALSE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "default"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Failed to configure v6 acl = six"));
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(log_of_details("Failed to configure v6 acl for vrf:  default")));
}

TEST_F(ssh_vrf_test, a_failure_of_access_lists_does_not_stop_the_handling) {
    agent_upcalls.create_nft_table = nullptr;
    agent_upcalls.ssh_flush_nft_table = nullptr;
    agent_upcalls.ssh_configure_v4acl = nullptr;
    agent_upcalls.ssh_configure_v6acl = nullptr;
    agent_upcalls.ssh_remove_v4acl_config = nullptr;
    agent_upcalls.ssh_remove_v6acl_config = nullptr;
    agent_upcalls.release_unused_acls = nullptr;
    add_namespace("default");
    EXPECT_EQ(ssh("default", created, {"four", "six"}), 0);
    EXPECT_EQ(trail().back(), "telemetry");
    EXPECT_EQ(ssh("default", changed, {"other", nullptr}), 0);
    EXPECT_STREQ(find_vrf_node("default")->ssh_v4_acl, "other");
    EXPECT_EQ(protocol(created), 0);
    EXPECT_EQ(ssh("default", deleted), 0);
    EXPECT_STREQ(find_vrf_node("default")->ssh_v4_acl, "");
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
}

TEST_F(ssh_vrf_test, an_access_list_name_is_truncated_to_64_characters) {
    const std::string longer(70, 'n');
    ssh("red", created, {longer.c_str(), longer.c_str()});
    EXPECT_EQ(find_vrf_node("red")->ssh_v4_acl, std::string(64, 'n'));
    EXPECT_EQ(find_vrf_node("red")->ssh_v6_acl, std::string(64, 'n'));
}

// Modification: tables, then the flushes, then each list, all while the ports are blocked.

TEST_F(ssh_vrf_test, a_modification_replaces_the_lists_while_ports_are_blocked) {
    add_namespace("red");
    ssh("red", created, {"old4", "old6"});
    forget();
    EXPECT_EQ(ssh("red", changed, {"new4", "new6"}), 0);
    EXPECT_THAT(trail(), ElementsAre("create_nft_table(red)", "mpp_vrf_block(red)", "ssh_flush_nft_table(red, 0)",
                                     "ssh_flush_nft_table(red, 2)", "ssh_configure_v4acl(red, 0)",
                                     "ssh_configure_v6acl(red, 2)", "mpp_vrf_unblock(red)", "release_unused_acls()"));
    EXPECT_STREQ(find_vrf_node("red")->ssh_v4_acl, "new4");
    EXPECT_STREQ(find_vrf_node("red")->ssh_v6_acl, "new6");
}

// After a restart of the agent the server may still be running, and its VRF has not been blocked yet.
TEST_F(ssh_vrf_test, a_modification_initialises_the_filter_before_the_first_block) {
    agent_handles.respawn_count = 2;
    add_namespace("red");
    write_file(server_file("red"), std::string(default_file) + "Port 22\n");
    stub_commands::set_output("systemctl is-active sshd_service_red", "active\n");
    ssh("red", created, {"old4"});
    forget();
    ssh("red", changed, {"new4"});
    EXPECT_THAT(trail(), ElementsAre("create_nft_table(red)", "mpp_vrf_nft_init(red)", "mpp_vrf_block(red)",
                                     "ssh_flush_nft_table(red, 0)", "ssh_configure_v4acl(red, 0)",
                                     "mpp_vrf_unblock(red)", "release_unused_acls()"));
}

TEST_F(ssh_vrf_test, a_modification_without_lists_detaches_them) {
    add_namespace("red");
    ssh("red", created, {"old4", "old6"});
    forget();
    EXPECT_EQ(ssh("red", changed), 0);
    EXPECT_THAT(trail(), ElementsAre("create_nft_table(red)", "mpp_vrf_block(red)", "ssh_flush_nft_table(red, 0)",
                                     "ssh_flush_nft_table(red, 2)", "mpp_vrf_unblock(red)", "release_unused_acls()"));
    EXPECT_STREQ(find_vrf_node("red")->ssh_v4_acl, "");
    EXPECT_STREQ(find_vrf_node("red")->ssh_v6_acl, "");
}

TEST_F(ssh_vrf_test, a_modification_of_one_family_leaves_the_other_familys_rules) {
    add_namespace("red");
    ssh("red", created, {"old4", "old6"});
    forget();
    ssh("red", changed, {"old4", "new6"});
    EXPECT_THAT(trail(), ElementsAre("create_nft_table(red)", "mpp_vrf_block(red)", "ssh_flush_nft_table(red, 2)",
                                     "ssh_configure_v6acl(red, 2)", "mpp_vrf_unblock(red)", "release_unused_acls()"));
    forget();
    ssh("red", changed, {nullptr, "new6"});
    EXPECT_THAT(trail(), ElementsAre("create_nft_table(red)", "mpp_vrf_block(red)", "ssh_flush_nft_table(red, 0)",
                                     "mpp_vrf_unblock(red)", "release_unused_acls()"));
    EXPECT_STREQ(find_vrf_node("red")->ssh_v6_acl, "new6");
}

TEST_F(ssh_vrf_test, a_modification_without_a_namespace_only_stores_the_names) {
    ssh("red", created, {"old4", "old6"});
    forget();
    EXPECT_EQ(ssh("red", changed, {"new4", nullptr}), 0);
    EXPECT_THAT(trail(), ElementsAre("release_unused_acls()"));
    EXPECT_STREQ(find_vrf_node("red")->ssh_v4_acl, "new4");
    EXPECT_STREQ(find_vrf_node("red")->ssh_v6_acl, "");
}

TEST_F(ssh_vrf_test, a_list_that_could_not_be_attached_is_attached_by_the_next_modification) {
    add_namespace("red");
    fake_platform::fail("mpp_namespace_created", EIO, 1);
    ssh("red", created, {"four", "six"});
    forget();
    ssh("red", changed, {"four", "other"});
    EXPECT_THAT(trail(), Contains("ssh_configure_v4acl(red, 0)"));
}

TEST_F(ssh_vrf_test, a_vrf_without_a_working_server_stays_blocked) {
    add_namespace("red");
    command_trail::fail_shell("systemctl restart", ENOMEM);
    ssh("red", created, {"old4"});
    forget();
    ssh("red", changed, {"new4"});
    EXPECT_THAT(trail(), Contains("ssh_configure_v4acl(red, 0)"));
    EXPECT_TRUE(fake_platform::vrf_blocked("red"));
}

TEST_F(ssh_vrf_test, without_tables_a_modification_only_stores_the_names) {
    add_namespace("red");
    ssh("red", created, {"old4", "old6"});
    forget();
    fail_call("create_nft_table(red)");
    EXPECT_EQ(ssh("red", changed, {"new4", "new6"}), 0);
    EXPECT_THAT(trail(), ElementsAre("create_nft_table(red)", block_ssh_ipv4,
                                     "enforcement_failed(rules red ssh ipv4, access list new4 has not been loaded)",
                                     "mpp_service_block(1, 6, red)",
                                     "enforcement_failed(rules red ssh ipv6, access list new6 has not been loaded)",
                                     "release_unused_acls()"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("sshd_apply_vrf_func: Failed to create nft table"));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre(log_of_details("Failed to create nft table vrf:  red")));
    EXPECT_STREQ(find_vrf_node("red")->ssh_v4_acl, "new4");
    EXPECT_STREQ(find_vrf_node("red")->ssh_v6_acl, "new6");
}

// A table that could not be flushed keeps its rules; the other family's is loaded nevertheless.
TEST_F(ssh_vrf_test, a_failure_in_one_family_does_not_affect_the_other) {
    const struct {
        std::string failing;
        const char* loaded;
        const char* debug_text;
        const char* log_text;
    } failures[] = {
        {"ssh_flush_nft_table(red, 0)", "ssh_configure_v6acl(red, 2)", "sshd_apply_vrf_func: Failed to flush nft table",
         "Failed to flush nft table vrf:  red"},
        {"ssh_flush_nft_table(red, 2)", "ssh_configure_v4acl(red, 0)", "sshd_apply_vrf_func: Failed to flush nft table",
         "Failed to flush nft table vrf:  red"},
        {"ssh_configure_v4acl(red, 0)", "ssh_configure_v6acl(red, 2)", "Failed to configure v4 acl = new4",
         "Failed to configure v4 acl for vrf:  red"},
        {"ssh_configure_v6acl(red, 2)", "ssh_configure_v4acl(red, 0)", "Failed to configure v6 acl = new6",
         "Failed to configure v6 acl for vrf:  red"},
    };
    add_namespace("red");
    ssh("red", created, {"old4", "old6"});
    for (const auto& failure : failures) {
        ssh("red", changed, {"old4", "old6"});
        forget();
        clear_failed_calls();
        fail_call(failure.failing);
        EXPECT_EQ(ssh("red", changed, {"new4", "new6"}), 0);
        EXPECT_THAT(trail(), Contains(failure.loaded)) << failure.failing;
        EXPECT_FALSE(fake_platform::vrf_blocked("red"));
        const bool is_v4 = failure.failing.find(", 0)") != std::string::npos;
        EXPECT_EQ(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "red"), is_v4) << failure.failing;
        EXPECT_EQ(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV6, "red"), !is_v4) << failure.failing;
        EXPECT_EQ(fake_platform::not_in_force().size(), 1u) << failure.failing;
        EXPECT_THAT(fake_platform::debug_texts(), Contains(failure.debug_text));
        EXPECT_THAT(fake_platform::log_texts(), ElementsAre(log_of_details(failure.log_text)));
        clear_failed_calls();
    }
}

TEST_F(ssh_vrf_test, a_list_that_is_loaded_later_unblocks_its_family) {
    add_namespace("red");
    fail_call("ssh_configure_v4acl(red, 0)");
    ssh("red", created, {"four"});
    EXPECT_TRUE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "red"));
    clear_failed_calls();
    ssh("red", changed, {"four"});
    EXPECT_FALSE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "red"));
    EXPECT_THAT(fake_platform::not_in_force(), ElementsAre());
}

TEST_F(ssh_vrf_test, an_item_without_the_failed_list_unblocks_its_family) {
    add_namespace("red");
    fail_call("ssh_configure_v4acl(red, 0)");
    ssh("red", created, {"four"});
    ssh("red", changed);
    EXPECT_FALSE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "red"));
    EXPECT_THAT(fake_platform::not_in_force(), ElementsAre());
}

TEST_F(ssh_vrf_test, deleting_the_item_unblocks_the_family_of_the_failed_list) {
    add_namespace("red");
    fail_call("ssh_configure_v4acl(red, 0)");
    for (const bool netconf_stays : {false, true}) {
        ssh("red", created, {"four"});
        EXPECT_TRUE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "red"));
        if (netconf_stays) {
            netconf("red", created);
        }
        ssh("red", deleted);
        EXPECT_FALSE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "red"));
        EXPECT_THAT(fake_platform::not_in_force(), ElementsAre());
    }
}

TEST_F(ssh_vrf_test, rules_of_an_old_list_that_cannot_be_removed_are_reported) {
    add_namespace("red");
    ssh("red", created, {"four"});
    fail_call("ssh_flush_nft_table(red, 0)");
    ssh("red", changed);
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(fake_platform::unenforced{"rules red ssh ipv4",
                                                      "the rules of the former access list could not be removed"}));
    EXPECT_FALSE(fake_platform::service_blocked(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "red"));
    clear_failed_calls();
    forget();
    ssh("red", changed);
    EXPECT_THAT(trail(), Contains("ssh_flush_nft_table(red, 0)"));
    EXPECT_THAT(fake_platform::not_in_force(), ElementsAre());
}

TEST_F(ssh_vrf_test, an_operators_unblock_lasts_until_a_list_is_attached_again) {
    add_namespace("red");
    fail_call("ssh_configure_v4acl(red, 0)");
    ssh("red", created, {"four"});
    forget();
    ssh_process_restart(1, "red");
    EXPECT_THAT(trail(), Not(Contains(block_ssh_ipv4)));
    ssh("red", changed, {"other"});
    EXPECT_THAT(trail(), Contains(block_ssh_ipv4));
}

TEST_F(ssh_vrf_test, a_service_that_cannot_be_blocked_is_traced) {
    add_namespace("red");
    fail_call("ssh_configure_v4acl(red, 0)");
    fake_platform::fail("mpp_service_block", EIO);
    fake_platform::fail("mpp_service_unblock", EIO);
    ssh("red", created, {"four"});
    EXPECT_TRUE(traced({"red", "0", "5"}));
    fake_platform::clear_reports();
    ssh("red", changed);
    EXPECT_TRUE(traced({"red", "0", "5"}));
}

TEST_F(ssh_vrf_test, a_modification_of_a_vrf_without_node_does_nothing) {
    EXPECT_EQ(ssh("red", changed, {"new4"}), 0);
    EXPECT_THAT(trail(), ElementsAre());
}

TEST_F(ssh_vrf_test, a_modification_changes_neither_file_nor_server) {
    add_namespace("red");
    ssh("red", created);
    const std::string file = read_file(server_file("red"));
    forget();
    ssh("red", changed, {"new4"});
    EXPECT_EQ(read_file(server_file("red")), file);
    EXPECT_THAT(stub_commands::log(), ElementsAre());
}

// Removal.

TEST_F(ssh_vrf_test, the_server_is_removed_with_the_last_item) {
    add_namespace("red");
    ssh("red", created, {"four", "six"});
    forget();
    EXPECT_EQ(ssh("red", deleted), 0);
    EXPECT_THAT(trail(),
                ElementsAre("ssh_remove_v4acl_config(red, 0)", "ssh_remove_v6acl_config(red, 2)",
                            "$ systemctl stop sshd_service_red", "mpp_vrf_unblock(red)", "mpp_vrf_unset(1, red)"));
    EXPECT_EQ(find_vrf_node("red"), nullptr);
    EXPECT_FALSE(path_exists(server_file("red")));
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("vrf:=red, refCnt:=0, ssh server will be stopped if refcnt is 0"));
}

// The unit exists independently and is removed with the namespace.
TEST_F(ssh_vrf_test, the_unit_remains_when_the_server_is_removed) {
    add_namespace("red");
    ssh("red", created);
    ssh("red", deleted);
    EXPECT_TRUE(path_exists(unit_file("red")));
}

TEST_F(ssh_vrf_test, only_configured_lists_are_detached) {
    ssh("red", created, {nullptr, "six"});
    forget();
    ssh("red", deleted);
    EXPECT_THAT(trail(), ElementsAre("ssh_remove_v6acl_config(red, 2)", "mpp_vrf_unset(1, red)"));
}

TEST_F(ssh_vrf_test, a_server_with_another_user_is_restarted_without_the_port) {
    add_namespace("red");
    netconf("red", created);
    ssh("red", created, {"four"});
    forget();
    EXPECT_EQ(ssh("red", deleted), 0);
    EXPECT_THAT(trail(),
                ElementsAre("ssh_remove_v4acl_config(red, 0)", "mpp_vrf_block(red)",
                            "$ systemctl restart sshd_service_red", "mpp_vrf_unblock(red)", "mpp_vrf_unset(1, red)"));
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + netconf_line + "Port 830\n");
    EXPECT_EQ(count_of("red"), 1);
    EXPECT_STREQ(find_vrf_node("red")->ssh_v4_acl, "");
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("vrf:=red, refCnt:=1, ssh server will be stopped if refcnt is 0"));
}

TEST_F(ssh_vrf_test, a_server_whose_file_did_not_change_is_not_restarted) {
    add_namespace("red");
    netconf("red", created);
    ssh("red", created);
    write_file(server_file("red"), default_file);
    forget();
    EXPECT_EQ(ssh("red", deleted), 0);
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_EQ(count_of("red"), 1);
}

TEST_F(ssh_vrf_test, a_server_with_two_other_users_is_not_restarted) {
    add_namespace("default");
    netconf("default", created);
    ssh("default", created);
    ssh("default", created);
    forget();
    EXPECT_EQ(ssh("default", deleted), 0);
    EXPECT_EQ(count_of("default"), 2);
    EXPECT_THAT(trail(), ElementsAre("telemetry"));
    EXPECT_EQ(read_file(server_file("default")), std::string(default_file) + netconf_line + "Port 830\n");
}

TEST_F(ssh_vrf_test, a_port_line_that_cannot_be_removed_leaves_everything_unchanged) {
    add_namespace("red");
    ssh("red", created, {"four"});
    std::filesystem::create_directory(paths::temporary_file);
    forget();
    EXPECT_EQ(ssh("red", deleted), 0);
    EXPECT_THAT(trail(), ElementsAre(not_as_configured("red")));
    EXPECT_EQ(count_of("red"), 1);
    EXPECT_STREQ(find_vrf_node("red")->ssh_v4_acl, "four");
    EXPECT_TRUE(path_exists(server_file("red")));
}

TEST_F(ssh_vrf_test, removing_a_missing_item_does_nothing) {
    EXPECT_EQ(ssh("red", deleted), 0);
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
}

TEST_F(ssh_vrf_test, a_failing_protection_service_is_only_traced) {
    add_namespace("red");
    fake_platform::fail("mpp_vrf_set", EIO);
    fake_platform::fail("mpp_vrf_unset", EIO);
    EXPECT_EQ(ssh("red", created), 0);
    EXPECT_EQ(find_vrf_node("red")->server_started, 1u);
    EXPECT_EQ(ssh("red", deleted), 0);
    EXPECT_EQ(find_vrf_node("red"), nullptr);
    EXPECT_TRUE(traced({"red", "5"}));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
}

TEST_F(ssh_vrf_test, vrfs_are_independent) {
    add_namespace("red");
    ssh("red", created);
    ssh("green", created);
    forget();
    ssh("green", deleted);
    EXPECT_NE(find_vrf_node("red"), nullptr);
    EXPECT_TRUE(path_exists(server_file("red")));
    EXPECT_THAT(trail(), ElementsAre("mpp_vrf_unset(1, green)"));
}

// The SSH port's line is written whatever the table contains.
TEST_F(ssh_vrf_test, a_configured_port_does_not_replace_the_ports_line) {
    server_config.parameters[SERVER_PORT].current = "2222";
    EXPECT_EQ(ssh("red", created), 0);
    EXPECT_EQ(read_file(server_file("red")), std::string(default_file) + "Port 22\n");
}

// --- Everything that is asked, run and reported -----------------------------------------------------------------------

class vrf_account_test : public vrf_appliers_test {
  protected:
    using change_item = platform_status (*)(const char* vrf, uint32_t event, const lists& given);
    std::string text;

    void note(const std::string& step, platform_status status) {
        text += "== " + step + ": " + std::to_string(status) + '\n' + account();
        call_faults::clear();
        clear_failed_calls();
    }

    void live(change_item item) {
        note("created without namespace", item("red", created, {"four", "six"}));
        note("deleted without namespace", item("red", deleted, {}));
        add_namespace("red");
        note("created", item("red", created, {"four", "six"}));
        note("created again", item("red", created, {"four", "six"}));
        note("other list", item("red", changed, {"other", "six"}));
        note("one list", item("red", changed, {nullptr, "six"}));
        note("no list", item("red", changed, {}));
        note("deleted", item("red", deleted, {}));
        note("deleted again", item("red", deleted, {}));
    }

    void fail_commands(change_item item) {
        for (const char* command : {"cp", "systemctl daemon-reload", "systemctl restart", "systemctl stop"}) {
            for (const int error : {EIO, ETIMEDOUT}) {
                const std::string failing = std::string(" without ") + command + ", " + std::to_string(error);
                call_faults::answer_command(command, -1, error);
                note("created" + failing, item("red", created, {"four", "six"}));
                call_faults::answer_command(command, -1, error);
                note("changed" + failing, item("red", changed, {"other", nullptr}));
                call_faults::answer_command(command, -1, error);
                note("deleted" + failing, item("red", deleted, {}));
                item("red", deleted, {});
                forget_vrf_nodes();
                account();
            }
        }
    }

    void fail_lists(change_item item) {
        for (const char* call :
             {"create_nft_table(red)", "ssh_flush_nft_table(red, 0)", "ssh_flush_nft_table(red, 1)",
              "ssh_flush_nft_table(red, 2)", "ssh_flush_nft_table(red, 3)", "ssh_configure_v4acl(red, 0)",
              "ssh_configure_v4acl(red, 1)", "ssh_configure_v6acl(red, 2)", "ssh_configure_v6acl(red, 3)"}) {
            const std::string failing = std::string(" without ") + call;
            fail_call(call);
            note("created" + failing, item("red", created, {"four", "six"}));
            fail_call(call);
            note("changed" + failing, item("red", changed, {"other", nullptr}));
            fail_call(call);
            note("changed again" + failing, item("red", changed, {nullptr, "6"}));
            note("deleted" + failing, item("red", deleted, {}));
        }
    }

    void fail_services(change_item item) {
        for (const char* operation : {"mpp_vrf_set", "mpp_vrf_unset", "mpp_vrf_nft_init", "mpp_vrf_block",
                                      "mpp_vrf_unblock", "mpp_namespace_created", "vrf_table_lookup"}) {
            fake_platform::fail(operation, EIO);
            note(std::string("created without ") + operation, item("red", created, {"four", "six"}));
            note(std::string("changed without ") + operation, item("red", changed, {"other", nullptr}));
            note(std::string("deleted without ") + operation, item("red", deleted, {}));
            fake_platform::clear_failures();
            item("red", deleted, {});
            forget_vrf_nodes();
            account();
        }
    }
};

TEST_F(vrf_account_test, ssh) {
    live(ssh);
    fail_commands(ssh);
    fail_lists(ssh);
    fail_services(ssh);
    expect_golden("vrf/golden/ssh_account", text);
}

TEST_F(vrf_account_test, netconf) {
    live(netconf);
    fail_commands(netconf);
    fail_lists(netconf);
    fail_services(netconf);
    expect_golden("vrf/golden/netconf_account", text);
}

}  // namespace
