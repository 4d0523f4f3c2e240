#include "vrf/server_changes.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "call_faults.h"
#include "config_files/config_writer.h"
#include "core/shell_command.h"
#include "vrf_appliers_test.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

/// The query of server_changes.cpp about these units after a command that succeeded.
std::string active_states_of(const std::string& units) {
    return "$ systemctl list-units --all --full --plain --no-legend " + units;
}

/// Its query after one that failed.
std::string states_of(const std::string& units) {
    return "$ systemctl show --property=Id,ActiveState,MainPID,NeedDaemonReload,ExecMainStartTimestampMonotonic " +
           units;
}

class server_changes_test : public vrf_appliers_test {
  protected:
    /// Two VRFs with a server, of which blue is the newer one and comes first.
    server_changes_test() {
        for (const char* vrf : {"red", "blue"}) {
            add_namespace(vrf);
            ssh(vrf, created);
        }
        forget();
    }

    static void set_timeout(const char* seconds) {
        update_config_files_restart(event_set_value, "LoginGraceTime", seconds, 1);
    }

    static std::vector<std::string> systemctl() { return stub_commands::log_of("systemctl"); }
};

using announced_test = server_changes_test;
using unannounced_test = server_changes_test;

// --- Commands with and without an announcement -----------------------------------------------------------------------

TEST_F(unannounced_test, every_command_runs_immediately) {
    add_namespace("green");
    set_timeout("40");
    set_timeout("41");
    ssh("green", created);
    ssh("red", deleted);
    EXPECT_THAT(trail(),
                ElementsAre("mpp_vrf_block(blue)", "$ systemctl restart sshd_service_blue", "mpp_vrf_unblock(blue)",
                            "mpp_vrf_block(red)", "$ systemctl restart sshd_service_red", "mpp_vrf_unblock(red)",
                            "mpp_vrf_block(blue)", "$ systemctl restart sshd_service_blue", "mpp_vrf_unblock(blue)",
                            "mpp_vrf_block(red)", "$ systemctl restart sshd_service_red", "mpp_vrf_unblock(red)",
                            copy_for("green"), "mpp_namespace_created(vrf-green)", "vrf_table_lookup(green)",
                            "$ systemctl daemon-reload", "mpp_vrf_set(1, green)", "mpp_vrf_nft_init(green)",
                            "mpp_vrf_block(green)", "$ systemctl restart sshd_service_green", "mpp_vrf_unblock(green)",
                            "create_nft_table(green)", "$ systemctl stop sshd_service_red", "mpp_vrf_unblock(red)",
                            "mpp_vrf_unset(1, red)"));
}

TEST_F(announced_test, one_command_of_each_kind_runs_at_the_end) {
    add_namespace("green");
    put_off_server_changes();
    set_timeout("40");
    set_timeout("41");
    ssh("green", created);
    ssh("red", deleted);
    EXPECT_THAT(trail(), ElementsAre("mpp_vrf_block(blue)", "mpp_vrf_block(red)", copy_for("green"),
                                     "mpp_namespace_created(vrf-green)", "vrf_table_lookup(green)",
                                     "mpp_vrf_set(1, green)", "mpp_vrf_nft_init(green)", "mpp_vrf_block(green)",
                                     "create_nft_table(green)", "mpp_vrf_unset(1, red)"));
    forget();
    carry_out_server_changes();
    EXPECT_THAT(trail(), ElementsAre("$ systemctl daemon-reload", "$ systemctl stop sshd_service_red",
                                     active_states_of("sshd_service_red.service"), "mpp_vrf_unblock(red)",
                                     "$ systemctl restart sshd_service_green sshd_service_blue",
                                     active_states_of("sshd_service_green.service sshd_service_blue.service"),
                                     "mpp_vrf_unblock(green)", "mpp_vrf_unblock(blue)"));
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
    forget();
    set_timeout("42");
    EXPECT_THAT(systemctl(), ElementsAre("systemctl restart sshd_service_green", "systemctl restart sshd_service_blue"))
        << "nothing is postponed after the end";
}

TEST_F(announced_test, a_commit_that_concerns_no_server_runs_nothing) {
    put_off_server_changes();
    carry_out_server_changes();
    EXPECT_THAT(trail(), IsEmpty());
}

TEST_F(announced_test, one_command_starts_at_most_64_servers) {
    put_off_server_changes();
    for (size_t i = 0; i < server_batch_max; i++) {
        const std::string vrf = "v" + std::to_string(i);
        add_namespace(vrf);
        ssh(vrf.c_str(), created);
    }
    set_timeout("40");
    carry_out_server_changes();
    EXPECT_EQ(stub_commands::log_of("systemctl daemon-reload").size(), 1u);
    EXPECT_EQ(stub_commands::log_of("systemctl restart").size(), 2u);
    EXPECT_THAT(stub_commands::log_of("systemctl restart"),
                Contains("systemctl restart sshd_service_blue sshd_service_red"));
    EXPECT_THAT(fake_platform::steps(), ElementsAre("letting systemd read the units 0/0", "restarting servers 0/66",
                                                    "restarting servers 64/66"));
    for (const vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        EXPECT_EQ(node->server_started, 1u) << node->name;
        EXPECT_FALSE(fake_platform::vrf_blocked(node->name)) << node->name;
    }
}

TEST_F(announced_test, one_command_stops_at_most_64_servers) {
    for (size_t i = 0; i <= server_batch_max; i++) {
        const std::string vrf = "v" + std::to_string(i);
        add_namespace(vrf);
        ssh(vrf.c_str(), created);
    }
    forget();
    put_off_server_changes();
    for (size_t i = 0; i <= server_batch_max; i++) {
        ssh(("v" + std::to_string(i)).c_str(), deleted);
    }
    carry_out_server_changes();
    EXPECT_EQ(stub_commands::log_of("systemctl stop").size(), 2u);
    EXPECT_THAT(stub_commands::log_of("systemctl stop"), Contains("systemctl stop sshd_service_v64"));
}

// --- The states of the units -----------------------------------------------------------------------------------------

class restarted_agent_test : public server_changes_test {
  protected:
    /// After a restart of the agent the VRFs are new to it, while their files and servers exist.
    restarted_agent_test() {
        forget_vrf_nodes();
        put_off_server_changes();
    }

    /// Replaces what systemctl shows.
    static void show(const std::string& commands) {
        std::filesystem::remove_all("/stub_commands/units");
        stub_commands::set_hook("systemctl show", commands);
    }

    static size_t queries_of_all_units() {
        return stub_commands::log_of(states_of("sshd_service_*").substr(std::strlen("$ "))).size();
    }
};

TEST_F(restarted_agent_test, all_units_are_queried_together) {
    ssh("red", created);
    ssh("blue", created);
    EXPECT_EQ(systemctl().size(), 1u);
    EXPECT_EQ(queries_of_all_units(), 1u);
    EXPECT_THAT(trail(), Not(Contains(copy_for("red")))) << "its server runs";
}

TEST_F(restarted_agent_test, units_that_have_not_changed_are_not_read_again) {
    show("true");
    ssh("red", created);
    ssh("blue", created);
    carry_out_server_changes();
    EXPECT_THAT(stub_commands::log_of("systemctl restart"),
                ElementsAre("systemctl restart sshd_service_blue sshd_service_red"));
    EXPECT_THAT(systemctl(), Not(Contains("systemctl daemon-reload")));
}

TEST_F(restarted_agent_test, the_file_of_a_server_that_does_not_run_is_recreated) {
    show("echo Id=sshd_service_red.service; echo ActiveState=failed");
    ssh("red", created);
    ssh("blue", created);
    EXPECT_THAT(trail(), Contains(copy_for("red")));
    EXPECT_THAT(trail(), Contains(copy_for("blue"))) << "its unit is not loaded";
}

TEST_F(restarted_agent_test, a_unit_is_written_again_unless_systemd_has_read_it) {
    show("echo Id=sshd_service_red.service; echo ActiveState=failed; echo NeedDaemonReload=yes");
    ssh("red", created);
    carry_out_server_changes();
    EXPECT_THAT(systemctl(), Contains("systemctl daemon-reload"));
}

TEST_F(restarted_agent_test, a_unit_that_differs_is_written_again) {
    show("true");
    write_file("/etc/systemd/system/sshd_service_red.service", "[Unit]\n");
    ssh("red", created);
    EXPECT_NE(read_file("/etc/systemd/system/sshd_service_red.service"), "[Unit]\n");
    carry_out_server_changes();
    EXPECT_THAT(systemctl(), Contains("systemctl daemon-reload"));
}

TEST_F(restarted_agent_test, the_states_are_queried_again_after_a_stop) {
    for (size_t i = 0; i < server_batch_max; i++) {
        const std::string vrf = "v" + std::to_string(i);
        add_namespace(vrf);
        ssh(vrf.c_str(), created);
    }
    ssh("red", created);
    EXPECT_EQ(queries_of_all_units(), 1u);
    for (size_t i = 0; i < server_batch_max; i++) {
        ssh(("v" + std::to_string(i)).c_str(), deleted);
    }
    ssh("blue", created);
    EXPECT_EQ(queries_of_all_units(), 2u);
}

TEST_F(restarted_agent_test, each_server_is_probed_if_the_units_cannot_be_queried) {
    stub_commands::fail("systemctl show", 1, 1);
    ssh("red", created);
    ssh("blue", created);
    EXPECT_THAT(stub_commands::log_of("systemctl is-active"),
                ElementsAre("systemctl is-active sshd_service_red", "systemctl is-active sshd_service_blue"));
    EXPECT_EQ(stub_commands::log_of("systemctl show").size(), 1u) << "it is not asked again";
}

// --- Results ---------------------------------------------------------------------------------------------------------

TEST_F(announced_test, a_server_that_fails_does_not_hide_the_others) {
    stub_commands::fail_unit("sshd_service_blue");
    put_off_server_changes();
    set_timeout("40");
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty()) << "a postponed restart counts as done";
    carry_out_server_changes();
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(fake_platform::unenforced{"server blue", "systemctl restart sshd_service_blue failed"}));
    EXPECT_TRUE(fake_platform::vrf_blocked("blue"));
    EXPECT_FALSE(fake_platform::vrf_blocked("red"));
    EXPECT_EQ(find_vrf_node("blue")->start_failed, 1u);
    EXPECT_EQ(find_vrf_node("blue")->restart_due, 1u);
    EXPECT_EQ(find_vrf_node("red")->restart_due, 0u);
    EXPECT_TRUE(traced({"blue", std::to_string(EIO)}));
    stub_commands::allow_unit("sshd_service_blue");
    put_off_server_changes();
    set_timeout("41");
    carry_out_server_changes();
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
    EXPECT_FALSE(fake_platform::vrf_blocked("blue"));
}

// systemctl's status shows neither which unit failed nor whether one has failed since.
TEST_F(announced_test, the_states_of_the_units_count) {
    stub_commands::set_hook("systemctl show",
                            "echo Id=sshd_service_red.service; echo ActiveState=active; "
                            "echo ExecMainStartTimestampMonotonic=9999999999999999");
    std::filesystem::remove_all("/stub_commands/units");
    stub_commands::fail("systemctl restart", 1);
    put_off_server_changes();
    set_timeout("40");
    carry_out_server_changes();
    EXPECT_FALSE(fake_platform::is_not_in_force("server red"));
    EXPECT_TRUE(fake_platform::is_not_in_force("server blue"));
}

// The command's success says that all servers were restarted, but one may have failed since.
TEST_F(announced_test, a_server_that_fails_right_after_its_start_is_reported) {
    stub_commands::set_hook("systemctl list-units",
                            "echo 'sshd_service_red.service loaded active running x'; "
                            "echo 'sshd_service_blue.service loaded failed failed x'");
    std::filesystem::remove_all("/stub_commands/units");
    put_off_server_changes();
    set_timeout("40");
    std::filesystem::remove_all("/stub_commands/units");
    stub_commands::fail("systemctl show", 1);
    carry_out_server_changes();
    EXPECT_FALSE(fake_platform::is_not_in_force("server red"));
    EXPECT_TRUE(fake_platform::is_not_in_force("server blue"));
    EXPECT_TRUE(fake_platform::vrf_blocked("blue"));
}

TEST_F(announced_test, a_server_that_was_not_stopped_has_not_been_restarted) {
    stub_commands::fail("systemctl restart", 1);
    put_off_server_changes();
    set_timeout("40");
    carry_out_server_changes();
    EXPECT_EQ(fake_platform::not_in_force().size(), 2u);
}

TEST_F(announced_test, a_server_counts_as_started_only_after_its_start) {
    add_namespace("green");
    add_namespace("grey");
    stub_commands::fail_unit("sshd_service_grey");
    put_off_server_changes();
    ssh("green", created);
    ssh("grey", created);
    EXPECT_EQ(find_vrf_node("green")->server_started, 0u);
    carry_out_server_changes();
    EXPECT_EQ(find_vrf_node("green")->server_started, 1u);
    EXPECT_EQ(find_vrf_node("grey")->server_started, 0u);
    EXPECT_TRUE(fake_platform::vrf_blocked("grey"));
}

TEST_F(announced_test, if_the_units_cannot_be_queried_the_commands_status_counts) {
    stub_commands::fail("systemctl show", 1);
    stub_commands::fail("systemctl list-units", 1);
    put_off_server_changes();
    set_timeout("40");
    carry_out_server_changes();
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
    stub_commands::fail("systemctl restart", 1, 1);
    put_off_server_changes();
    set_timeout("41");
    carry_out_server_changes();
    EXPECT_EQ(fake_platform::not_in_force().size(), 2u);
    EXPECT_TRUE(fake_platform::vrf_blocked("red"));
}

TEST_F(announced_test, a_hanging_systemctl_is_named) {
    call_faults::limit_commands(200);
    stub_commands::set_delay("systemctl restart", 60000);
    put_off_server_changes();
    begin_command_group();
    set_timeout("40");
    carry_out_server_changes();
    end_command_group();
    EXPECT_THAT(fake_platform::not_in_force(),
                Contains(fake_platform::unenforced{"server red", "systemctl restart sshd_service_red timed out"}));
    EXPECT_TRUE(fake_platform::vrf_blocked("red"));
}

TEST_F(announced_test, a_failed_daemon_reload_is_reported_and_repeated) {
    stub_commands::fail("systemctl daemon-reload", 1, 1);
    add_namespace("green");
    put_off_server_changes();
    ssh("green", created);
    EXPECT_FALSE(unit_reload_is_due()) << "not due yet";
    carry_out_server_changes();
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(fake_platform::unenforced{"units", "systemctl daemon-reload failed"}));
    EXPECT_TRUE(unit_reload_is_due());
    put_off_server_changes();
    carry_out_server_changes();
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
    EXPECT_FALSE(unit_reload_is_due());
}

TEST_F(announced_test, a_server_that_does_not_stop_is_reported) {
    stub_commands::fail("systemctl stop", 1, 1);
    put_off_server_changes();
    ssh("red", deleted);
    carry_out_server_changes();
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(fake_platform::unenforced{"server red", "systemctl stop sshd_service_red failed"}));
}

// --- The last request counts -----------------------------------------------------------------------------------------

TEST_F(announced_test, a_vrf_that_is_removed_and_added_is_restarted) {
    put_off_server_changes();
    ssh("red", deleted);
    ssh("red", created);
    carry_out_server_changes();
    EXPECT_THAT(stub_commands::log_of("systemctl stop"), IsEmpty());
    EXPECT_THAT(stub_commands::log_of("systemctl restart"), ElementsAre("systemctl restart sshd_service_red"));
    EXPECT_FALSE(fake_platform::vrf_blocked("red"));
}

TEST_F(announced_test, a_vrf_that_is_added_again_leaves_the_stops_of_the_others) {
    for (const char* vrf : {"green", "grey"}) {
        add_namespace(vrf);
        ssh(vrf, created);
    }
    forget();
    put_off_server_changes();
    for (const char* vrf : {"grey", "red", "blue", "green"}) {
        ssh(vrf, deleted);
    }
    ssh("red", created);
    carry_out_server_changes();
    EXPECT_THAT(stub_commands::log_of("systemctl stop"),
                ElementsAre("systemctl stop sshd_service_grey sshd_service_blue sshd_service_green"));
}

TEST_F(announced_test, a_vrf_that_is_changed_and_removed_is_stopped) {
    put_off_server_changes();
    set_timeout("40");
    ssh("red", deleted);
    carry_out_server_changes();
    EXPECT_THAT(stub_commands::log_of("systemctl stop"), ElementsAre("systemctl stop sshd_service_red"));
    EXPECT_THAT(stub_commands::log_of("systemctl restart"), ElementsAre("systemctl restart sshd_service_blue"));
}

// --- Protection ------------------------------------------------------------------------------------------------------

// Its rules are removed before its server is stopped.
TEST_F(announced_test, a_vrf_is_blocked_before_it_loses_its_lists) {
    ssh("red", changed, {"list"});
    forget();
    put_off_server_changes();
    ssh("red", deleted);
    EXPECT_THAT(trail(), ElementsAre("mpp_vrf_block(red)", "ssh_remove_v4acl_config(red, 0)", "mpp_vrf_unset(1, red)"));
    EXPECT_TRUE(fake_platform::vrf_blocked("red"));
    carry_out_server_changes();
    EXPECT_FALSE(fake_platform::vrf_blocked("red"));
}

TEST_F(announced_test, a_vrf_with_new_lists_stays_blocked_until_its_server_is_restarted) {
    put_off_server_changes();
    set_timeout("40");
    ssh("red", changed, {"list"});
    EXPECT_THAT(trail(), Not(Contains("mpp_vrf_unblock(red)")));
    carry_out_server_changes();
    EXPECT_EQ(trail().back(), "mpp_vrf_unblock(red)");
}

// The removal of a list's rules blocks the VRF, but its other service needs no restart.
TEST_F(announced_test, a_vrf_without_a_restart_is_unblocked_at_the_end) {
    agent_handles.initial_scan_complete = 1;
    protocol(created);
    add_namespace("default");
    ssh("default", created, {"list"});
    forget();
    put_off_server_changes();
    ssh("default", deleted);
    carry_out_server_changes();
    EXPECT_FALSE(fake_platform::vrf_blocked("default"));
}

// --- The record of restarts ------------------------------------------------------------------------------------------

TEST_F(announced_test, the_restarts_are_recorded_until_they_are_made) {
    put_off_server_changes();
    set_timeout("40");
    EXPECT_THAT(file_lines(paths::restart_record), Contains("red"));
    EXPECT_THAT(file_lines(paths::restart_record), Contains("blue"));
    stub_commands::set_hook("systemctl restart", std::string("cp ") + paths::restart_record + " /tmp/seen");
    carry_out_server_changes();
    EXPECT_THAT(file_lines("/tmp/seen"), Contains("red"));
    EXPECT_FALSE(std::filesystem::exists(paths::restart_record));
}

}  // namespace
