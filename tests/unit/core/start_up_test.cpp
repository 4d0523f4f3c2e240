#include "start_up_test.h"

#include <cerrno>
#include <cstdlib>

#include "../account.h"
#include "call_faults.h"
#include "command_trail.h"
#include "core/debug.h"
#include "platform/namespace_message.h"
#include "scratch_root.h"

namespace {

using fake_platform::set_number;
using fake_platform::set_tuple;
using fake_platform::store;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

using start_up_test = agent_test;

TEST_F(start_up_test, takes_its_steps_in_their_order) {
    command_trail::begin();
    EXPECT_EQ(start_agent(), START_UP_DONE);
    command_trail::end();
    std::string calls;
    for (const std::string& call : fake_platform::calls()) {
        calls += call + '\n';
    }
    expect_golden("core/golden/start_up_calls", calls);
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
    EXPECT_EQ(agent_handles.initial_scan_complete, 1u);
}

/// The calls that create, rename, remove or change files. Which function writes text is the compiler's choice.
std::vector<std::string> file_operations() {
    std::vector<std::string> chosen;
    for (const std::string& call : call_faults::recorded_calls()) {
        for (const char* operation : {"open(", "creat(", "fopen(", "rename(", "unlink(", "remove(", "mkdir(", "chmod(",
                                      "fchmod(", "ftruncate(", "shm_open("}) {
            if (call.starts_with(operation)) {
                chosen.push_back(call);
            }
        }
    }
    return chosen;
}

std::string account_of_a_start(start_up_status (*start)()) {
    call_faults::clear();
    call_faults::start_recording();
    EXPECT_EQ(start(), START_UP_DONE);
    std::string text;
    for (const std::string& operation : file_operations()) {
        text += "file " + operation + '\n';
    }
    return text + account();
}

/// Everything that starts do and report, with their file operations in order.
TEST_F(start_up_test, every_start_is_accounted_for) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    scratch_root::add_namespace_file("vrf-red");
    std::string text = "== first start\n" + account_of_a_start(start_agent);
    store(set_number("/cfg/gl/crypto/ssh/server/cmn/timeout", 45));
    store(set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/red", "%d%S%S", {std::nullopt, "four", "six"}));
    store(set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf-netconf/blue", "%d%S%S", {std::nullopt, "four", std::nullopt}));
    text += "== with stored configuration\n" + account_of_a_start(start_agent);
    text += "== again\n" + account_of_a_start(start_agent);
    expect_golden("core/golden/start_up_account", text);
    forget_vrf_nodes();
}

uint32_t flag_during_scan;

TEST_F(start_up_test, stored_configuration_is_applied_before_the_scan_is_marked_complete) {
    store(set_number("/cfg/gl/crypto/ssh/server/cmn/timeout", 45));
    store(set_number("/cfg/gl/crypto/ssh/server/cmn/max_auth_limit", 4));
    flag_during_scan = 99;
    store(set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/red", "%d%S%S", {std::nullopt, std::nullopt, std::nullopt}));
    call_faults::observe_commands([](const std::string& command) {
        if (command.ends_with("sshd_config_red")) {
            flag_during_scan = agent_handles.initial_scan_complete;
        }
    });
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_THAT(file_lines(paths::server_file), AllOf(Contains("LoginGraceTime 45"), Contains("MaxAuthTries 4")));
    EXPECT_EQ(flag_during_scan, 0u);
    EXPECT_EQ(agent_handles.initial_scan_complete, 1u);
}

// Each VRF's server is restarted with a separate systemctl.
TEST_F(start_up_test, a_hanging_systemctl_is_tried_once_per_commit) {
    constexpr char timeout[] = "/cfg/gl/crypto/ssh/server/cmn/timeout";
    for (const std::string vrf : {"blue", "green", "red"}) {
        scratch_root::add_namespace_file("vrf-" + vrf);
        store(set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/" + vrf, "%d%S%S",
                        {std::nullopt, std::nullopt, std::nullopt}));
    }
    ASSERT_EQ(start_agent(), START_UP_DONE);
    ASSERT_THAT(stub_commands::log_of("systemctl restart"),
                ElementsAre("systemctl restart sshd_service_red sshd_service_green sshd_service_blue"));
    call_faults::limit_commands(200);
    stub_commands::set_delay("systemctl restart", 60000, 2);
    for (const uint32_t value : {45U, 46U}) {
        stub_commands::clear_log();
        const fake_platform::commit_result result = fake_platform::commit(set_number(timeout, value));
        EXPECT_EQ(result.not_in_force.size(), 3U);
        EXPECT_THAT(stub_commands::log_of("systemctl"),
                    ElementsAre("systemctl restart sshd_service_red sshd_service_green sshd_service_blue"));
    }
    EXPECT_THAT(fake_platform::commit(set_number(timeout, 47)).not_in_force, ElementsAre());
}

TEST_F(start_up_test, a_hanging_systemctl_is_tried_once_by_the_initial_scan) {
    for (const std::string vrf : {"blue", "green", "red"}) {
        scratch_root::add_namespace_file("vrf-" + vrf);
        store(set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/" + vrf, "%d%S%S",
                        {std::nullopt, std::nullopt, std::nullopt}));
    }
    call_faults::limit_commands(200);
    stub_commands::set_delay("systemctl restart", 60000);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_EQ(stub_commands::log_of("systemctl restart").size(), 1U);
}

TEST_F(start_up_test, the_stored_backup_server_is_not_scanned) {
    store(set_number("/cfg/gl/crypto/ssh/sshd_backup/cmn/timeout", 45));
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_THAT(file_lines(paths::server_file), Contains("LoginGraceTime 30"));
}

TEST_F(start_up_test, changes_reach_their_appliers_from_every_binding) {
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_EQ(fake_platform::commit(set_number("/cfg/gl/crypto/ssh/server/cmn/timeout", 50)).status, PLATFORM_OK);
    EXPECT_THAT(file_lines(paths::server_file), Contains("LoginGraceTime 50"));
    // The item table does not distinguish the bindings.
    EXPECT_EQ(fake_platform::commit(set_number("/cfg/gl/crypto/ssh/sshd_backup/cmn/timeout", 51)).status, PLATFORM_OK);
    EXPECT_THAT(file_lines(paths::server_file), Contains("LoginGraceTime 51"));
    EXPECT_EQ(fake_platform::commit(set_number("/cfg/gl/crypto/ssh/client/v1", 1)).status, PLATFORM_OK);
    EXPECT_TRUE(fake_platform::logged("WARNING_GENERAL",
                                      "Backup server, netconf-port configs, ssh v1 are not supported in this platform "
                                      "and release, will not take effect"));
}

TEST_F(start_up_test, debug_flags_reach_their_handler) {
    EXPECT_EQ(start_agent(), START_UP_DONE);
    fake_platform::set_debug_flag(debug_server_l2, true);
    EXPECT_THAT(file_lines(paths::server_file), Contains("LogLevel DEBUG2"));
    fake_platform::set_debug_flag(debug_server_l2, false);
    EXPECT_THAT(file_lines(paths::server_file), Not(Contains("LogLevel DEBUG2")));
}

TEST_F(start_up_test, namespace_messages_are_answered) {
    EXPECT_EQ(start_agent(), START_UP_DONE);
    const auto reply = fake_platform::send_namespace_message(NAMESPACE_DELETED, "vrf-red");
    EXPECT_TRUE(reply.handled);
    EXPECT_EQ(reply.replies, 1u);
    EXPECT_EQ(reply.bytes, std::string(24, '\0'));
}

TEST_F(start_up_test, the_pam_file_is_written_and_watched) {
    EXPECT_EQ(start_agent(), START_UP_DONE);
    expect_golden("host/golden/norvosshd", read_file("/etc/pam.d/norvosshd"));
    remove_path("/etc/pam.d/norvosshd");
    EXPECT_EQ(fake_platform::dispatch_ready_fds(), 1u);
    expect_golden("host/golden/norvosshd", read_file("/etc/pam.d/norvosshd"));
}

TEST_F(start_up_test, the_file_system_list_is_published) {
    fake_platform::set_file_systems({"disk0:", "harddisk:"});
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_STREQ(read_file("/dev/shmem/shm_filesystem_list").c_str(), "disk0: harddisk: ");
}

TEST_F(start_up_test, announces_the_start) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    fake_platform::set_respawn_count(3);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_TRUE(fake_platform::debugged("ssh_cfg_agent starts, role:=1, respawn count:=3"));
    EXPECT_FALSE(fake_platform::trace_lines_of("ssh/cfg-agent/event").empty());
}

TEST_F(start_up_test, a_node_that_is_not_primary_reports_ready_and_waits) {
    fake_platform::set_role(2);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    const auto calls = fake_platform::calls_of("process_manager_");
    EXPECT_THAT(calls,
                ElementsAre("process_manager_role()", "process_manager_ready()", "process_manager_wait_primary()",
                            "process_manager_respawn_count()", "process_manager_ready()"));
}

TEST_F(start_up_test, a_failed_wait_ends_silently_with_status_1) {
    fake_platform::set_role(0);
    fake_platform::fail("process_manager_wait_primary", EIO);
    EXPECT_EQ(start_agent(), START_UP_NOT_PRIMARY);
    EXPECT_EQ(run_agent(), 1);
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
    EXPECT_EQ(fake_platform::count_calls("debug_flag_register"), 0u);
    EXPECT_FALSE(path_exists("/var/empty"));
    // The PAM file is maintained nevertheless.
    EXPECT_TRUE(path_exists("/etc/pam.d/norvosshd"));
    EXPECT_EQ(fake_platform::count_calls("event_manager_attach_fd"), 2u);
}

TEST_F(start_up_test, the_agent_continues_in_its_loop) {
    fake_platform::queue_block_failure(EINTR);
    fake_platform::queue_event([] { std::exit(agent_handles.initial_scan_complete == 1 ? 42 : 1); });
    EXPECT_EXIT(run_agent(), testing::ExitedWithCode(42), "");
}

}  // namespace
