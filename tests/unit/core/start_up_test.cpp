#include "core/start_up.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "../agent_test.h"
#include "call_faults.h"
#include "command_trail.h"
#include "core/debug.h"
#include "platform/namespace_message.h"
#include "scratch_root.h"
#include "syscall_faults.h"

namespace {

using fake_platform::set_number;
using fake_platform::set_tuple;
using fake_platform::store;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Not;

using start_up_test = agent_test;

std::string failure_text(const char* error, const char* message) {
    return std::string("ERR_ERRNO: Error:=") + error + ", " + message;
}

// --- A start without failures ---------------------------------------------------------------------------------------

TEST_F(start_up_test, takes_its_steps_in_their_order) {
    command_trail::begin();
    EXPECT_EQ(start_agent(), START_UP_DONE);
    command_trail::end();
    EXPECT_THAT(
        fake_platform::calls(),
        ElementsAre("trace_buffer_create(ssh/cfg-agent/error, 200, 12400)",
                    "trace_buffer_create(ssh/cfg-agent/event, 200, 12400)", "event_manager_create(/dev/ssh_cfg_agent)",
                    "process_manager_role()", "event_manager_attach_fd(1)",
                    "debug_flag_register(/debug/ssh/, 1, server-l1, 7, 5)",
                    "debug_flag_register(/debug/ssh/, 2, server-l2, 7, 5)",
                    "debug_flag_register(/debug/ssh/, 3, server-l3, 7, 5)",
                    "debug_flag_register(/debug/ssh/, 4, client-l1, 7, 5)",
                    "debug_flag_register(/debug/ssh/, 5, client-l2, 7, 5)",
                    "debug_flag_register(/debug/ssh/, 6, client-l3, 7, 5)",
                    "debug_flag_register(/debug/ssh/, 8, cfg-agent, 7, 5)",
                    "debug_flag_register(/debug/ssh/, 9, syslog-proxy, 7, 5)",
                    "debug_flag_register(/debug/ssh/, 10, telemetry, 7, 5)", "debug_event_register(/debug/ssh/)",
                    "process_manager_respawn_count()", "datastore_bind(/cfg/gl/crypto/ssh/server/)",
                    "datastore_bind(/cfg/gl/crypto/ssh/client/)", "datastore_bind(/cfg/gl/crypto/ssh/sshd_backup/)",
                    "datastore_register_verification(/cfg/gl/crypto/ssh/server/, 7)",
                    "datastore_register_verification(/cfg/gl/crypto/ssh/client/, 7)",
                    "datastore_register_verification(/cfg/gl/crypto/ssh/sshd_backup/, 7)",
                    "datastore_bind(/cfg/gl/banner/)", "datastore_register_notification(/cfg/gl/banner/0x2, 7)",
                    "datastore_register_notification(/cfg/gl/banner/0x3, 7)", "datastore_bind(/cfg/gl/aaa/banner/)",
                    "datastore_register_notification(/cfg/gl/aaa/banner/0x0, 7)", "process_manager_ready()",
                    "event_manager_loop_handle()", "shelf_manager_create(loop)", "shelf_manager_set_reload_callback()",
                    "shelf_manager_set_connect_callback()", "shelf_manager_set_disconnect_callback()",
                    "shelf_manager_connect()", "datastore_provider_register(/oper/crypto-ssh/gl/session_xml/)",
                    "datastore_provider_register(/oper/crypto-ssh/gl/sshddata/)",
                    "datastore_provider_register(/oper/crypto-ssh/client/)",
                    "datastore_provider_register(/oper/crypto-ssh/gl/server-params)",
                    "datastore_provider_register(/oper/overlays/gl/crypto_ssh/openconfig-system/)",
                    "telemetry_producer_init(OCSSH, /oper/overlays/gl/crypto_ssh/openconfig-system/"
                    "system__bag_overlay_crypto_ssh_system)",
                    "datastore_bind(/cfg/gl/crypto/)", "datastore_item_get(/cfg/gl/crypto/fipsmode/value)",
                    "datastore_register_verification(/cfg/gl/crypto/fipsmode/value, 7)",
                    "datastore_register_notification(/cfg/gl/crypto/fipsmode/value, 7)", "file_system_list_get()",
                    "event_manager_attach_message(0x50d8085)", "mpp_init(1)", "mpp_init(64)",
                    "vrf_table_lookup(default)", "$ systemctl daemon-reload", "banner_service_platform(3)",
                    "banner_service_configured(3)", "banner_service_platform(2)", "banner_service_configured(2)",
                    "banner_service_aaa()", "datastore_backend_scan(/cfg/gl/crypto/ssh/server/, 0xfedcba98)",
                    "datastore_backend_scan(/cfg/gl/crypto/ssh/client/, 0xfedcba98)"));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
    EXPECT_EQ(agent.initial_scan_complete, 1u);
}

TEST_F(start_up_test, leaves_complete_default_files) {
    EXPECT_EQ(start_agent(), START_UP_DONE);
    expect_golden("core/golden/fresh_start/sshd_config", read_file(paths::server_file));
    expect_golden("core/golden/fresh_start/ssh_config", read_file(paths::client_file));
    EXPECT_TRUE(std::filesystem::is_directory("/var/empty"));
    EXPECT_EQ(mode_of("/var/empty"), mode_t{0755});
    EXPECT_TRUE(path_exists("/etc/systemd/system/sshd_service_default.service"));
    EXPECT_TRUE(path_exists("/etc/systemd/system/sshd_conf_default.conf"));
}

TEST_F(start_up_test, an_existing_empty_directory_is_accepted) {
    std::filesystem::create_directories("/var/empty");
    EXPECT_EQ(start_agent(), START_UP_DONE);
}

TEST_F(start_up_test, a_fresh_start_empties_the_default_files) {
    for (const uint32_t count : {0u, 1u}) {
        fake_platform::set_respawn_count(count);
        write_file(paths::server_file, "Banner /old\n");
        write_file(paths::client_file, "Banner /old\n");
        EXPECT_EQ(start_agent(), START_UP_DONE);
        expect_golden("core/golden/fresh_start/sshd_config", read_file(paths::server_file));
        expect_golden("core/golden/fresh_start/ssh_config", read_file(paths::client_file));
        EXPECT_EQ(agent.respawn_count, count);
    }
}

std::vector<std::string> sorted_lines(const std::string& path) {
    std::vector<std::string> lines = file_lines(path);
    std::ranges::sort(lines);
    return lines;
}

// Every line stays. The host keys' lines are written anew by every start and come to stand last.
TEST_F(start_up_test, a_restart_after_a_failure_keeps_the_default_files) {
    fake_platform::set_respawn_count(2);
    const std::string client_lines = read_file(TEST_SOURCE_DIR "/core/golden/fresh_start/ssh_config") + "Port 2222\n";
    write_file(paths::server_file, "Banner /x\n" + read_file(TEST_SOURCE_DIR "/core/golden/fresh_start/sshd_config"));
    write_file(paths::client_file, client_lines);
    const auto server_lines = sorted_lines(paths::server_file);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_EQ(sorted_lines(paths::server_file), server_lines);
    EXPECT_EQ(file_lines(paths::server_file).front(), "Banner /x");
    EXPECT_EQ(file_lines(paths::server_file).back(), "HostKey  /pkg/dsa");
    EXPECT_EQ(read_file(paths::client_file), client_lines);
}

uint32_t flag_during_scan;

TEST_F(start_up_test, stored_configuration_is_applied_while_the_scan_is_not_complete) {
    store(set_number("/cfg/gl/crypto/ssh/server/cmn/timeout", 45));
    store(set_number("/cfg/gl/crypto/ssh/server/cmn/max_auth_limit", 4));
    flag_during_scan = 99;
    store(set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/red", "%d%S%S", {std::nullopt, std::nullopt, std::nullopt}));
    call_faults::observe_commands([](const std::string& command) {
        if (command.ends_with("sshd_config_red)")) {
            flag_during_scan = agent.initial_scan_complete;
        }
    });
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_THAT(file_lines(paths::server_file), AllOf(Contains("LoginGraceTime 45"), Contains("MaxAuthTries 4")));
    EXPECT_EQ(flag_during_scan, 0u);
    EXPECT_EQ(agent.initial_scan_complete, 1u);
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
    // The table does not tell the bindings apart.
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

TEST_F(start_up_test, banners_reach_their_handlers) {
    EXPECT_EQ(start_agent(), START_UP_DONE);
    for (const auto& [kind, item] : {std::pair(2u, "0x2"), std::pair(3u, "0x3")}) {
        fake_platform::set_configured_banner(kind, "#Hello#");
        fake_platform::notify(std::string("/cfg/gl/banner/") + item, 3, fake_platform::text_value("#Hello#"));
        EXPECT_EQ(read_file(paths::banner_file), "Hello\n") << item;
        fake_platform::set_configured_banner(kind, std::nullopt);
    }
    fake_platform::set_aaa_banner("#Welcome#");
    fake_platform::notify("/cfg/gl/aaa/banner/0x0", 3, fake_platform::text_value("#Welcome#"));
    EXPECT_EQ(read_file("/etc/motd"), "Welcome\n");
}

// A notice tells of a change; what was there before the start would have none.
TEST_F(start_up_test, banners_are_there_before_the_servers) {
    store(set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/red", "%d%S%S", {std::nullopt, std::nullopt, std::nullopt}));
    fake_platform::set_configured_banner(3, "#Hello#");
    fake_platform::set_aaa_banner("#Welcome#");
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_EQ(read_file(paths::banner_file), "Hello\n");
    EXPECT_EQ(read_file("/etc/motd"), "Welcome\n");
    EXPECT_THAT(file_lines("/var/opt/norvo/norvossh/sshd_config_red"),
                Contains("Banner /var/opt/norvo/norvossh/banner"));
}

// The platform may have banners of its own where nothing is configured.
TEST_F(start_up_test, each_banner_alone_is_reason_enough) {
    for (const uint32_t kind : {2u, 3u}) {
        fake_platform::set_platform_banner(kind, "Stop");
        EXPECT_EQ(start_agent(), START_UP_DONE);
        EXPECT_THAT(file_lines(paths::server_file), Contains("Banner /var/opt/norvo/norvossh/banner")) << kind;
        fake_platform::set_platform_banner(kind, std::nullopt);
        fake_platform::set_configured_banner(kind, "#Hello#");
        EXPECT_EQ(start_agent(), START_UP_DONE);
        EXPECT_EQ(read_file(paths::banner_file), "Hello\n") << kind;
        fake_platform::set_configured_banner(kind, std::nullopt);
    }
}

TEST_F(start_up_test, without_banners_nothing_is_touched) {
    write_file("/etc/motd", "the machine's own\n");
    write_file(paths::banner_file, "old\n");
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_EQ(read_file("/etc/motd"), "the machine's own\n");
    EXPECT_EQ(read_file(paths::banner_file), "old\n");
}

// They have a status of their own, so that the process manager's records tell them from start-up.
TEST_F(start_up_test, banner_files_that_cannot_be_made_end_the_process) {
    EXPECT_EQ(start_agent(), START_UP_DONE);
    std::filesystem::create_directories(std::string(paths::banner_file) + "/in_the_way");
    EXPECT_EXIT(fake_platform::notify("/cfg/gl/banner/0x3", 3, fake_platform::text_value("#a#")),
                testing::ExitedWithCode(256 - 25), "");
    std::filesystem::create_directories(std::string(paths::aaa_banner_file) + "/in_the_way");
    fake_platform::set_aaa_banner("#a#");
    EXPECT_EXIT(fake_platform::notify("/cfg/gl/aaa/banner/0x0", 3, fake_platform::text_value("#a#")),
                testing::ExitedWithCode(256 - 30), "");
}

TEST_F(start_up_test, announces_itself) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    fake_platform::set_respawn_count(3);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_TRUE(fake_platform::debugged("ssh_cfg_agent starts, role:=1, respawn count:=3"));
    EXPECT_FALSE(fake_platform::trace_lines_of("ssh/cfg-agent/event").empty());
}

// --- Waiting to become primary --------------------------------------------------------------------------------------

TEST_F(start_up_test, a_node_that_is_not_primary_reports_ready_and_waits) {
    fake_platform::set_role(2);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    const auto calls = fake_platform::calls_of("process_manager_");
    EXPECT_THAT(calls,
                ElementsAre("process_manager_role()", "process_manager_ready()", "process_manager_wait_primary()",
                            "process_manager_respawn_count()", "process_manager_ready()"));
}

TEST_F(start_up_test, a_wait_that_fails_ends_with_status_1_and_no_word) {
    fake_platform::set_role(0);
    fake_platform::fail("process_manager_wait_primary", EIO);
    EXPECT_EQ(start_agent(), START_UP_NOT_PRIMARY);
    EXPECT_EQ(run_agent(), 1);
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
    EXPECT_EQ(fake_platform::count_calls("debug_flag_register"), 0u);
    EXPECT_FALSE(path_exists("/var/empty"));
    // Its PAM file is kept all the same.
    EXPECT_TRUE(path_exists("/etc/pam.d/norvosshd"));
    EXPECT_EQ(fake_platform::count_calls("event_manager_attach_fd"), 2u);
}

// --- Fatal failures -------------------------------------------------------------------------------------------------

struct fatal_case {
    const char* operation;
    start_up_status status;
    const char* log_line;
    std::vector<const char*> closing_calls;  ///< of unbinding and closing, in their order
};

constexpr char unbind_server[] = "datastore_unbind(/cfg/gl/crypto/ssh/server/)";
constexpr char unbind_client[] = "datastore_unbind(/cfg/gl/crypto/ssh/client/)";
constexpr char unbind_banner[] = "datastore_unbind(/cfg/gl/banner/)";
constexpr char unbind_aaa_banner[] = "datastore_unbind(/cfg/gl/aaa/banner/)";
constexpr char unbind_backup[] = "datastore_unbind(/cfg/gl/crypto/ssh/sshd_backup/)";

const fatal_case fatal_cases[] = {
    {"event_manager_create",
     START_UP_EVENT_MANAGER,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to create event manager",
     {}},
    {"debug_flag_register(/debug/ssh/, 9, syslog-proxy, 7, 5)",
     START_UP_DEBUG,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to initiate debug event",
     {}},
    {"debug_event_register",
     START_UP_DEBUG,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to initiate debug event",
     {}},
    {"datastore_bind(/cfg/gl/crypto/ssh/server/)",
     START_UP_SERVER_BINDING,
     "ERR_DATASTORE_BIND: Error:=Input/output error(0x5), Location:=SSH CFG BASE SERVER, Failed to bind to datastore",
     {}},
    {"datastore_bind(/cfg/gl/crypto/ssh/client/)",
     START_UP_CLIENT_BINDING,
     "ERR_DATASTORE_BIND: Error:=Input/output error(0x5), Location:=SSH CFG BASE CLIENT, Failed to bind to datastore",
     {unbind_server}},
    {"datastore_bind(/cfg/gl/crypto/ssh/sshd_backup/)",
     START_UP_BACKUP_BINDING,
     "ERR_DATASTORE_BIND: Error:=Input/output error(0x5), Location:=SSH CFG BASE BACKUP SERVER, Failed to bind to "
     "datastore",
     {unbind_server, unbind_client}},
    {"datastore_register_verification(/cfg/gl/crypto/ssh/server/, 7)",
     START_UP_SERVER_VERIFICATION,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to register for server config verification",
     {unbind_server, unbind_client}},
    {"datastore_register_verification(/cfg/gl/crypto/ssh/client/, 7)",
     START_UP_CLIENT_VERIFICATION,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to register for client config verification",
     {unbind_server, unbind_client}},
    {"datastore_register_verification(/cfg/gl/crypto/ssh/sshd_backup/, 7)",
     START_UP_BACKUP_VERIFICATION,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to register for backup config verification",
     {unbind_server, unbind_client, unbind_backup}},
    {"event_manager_attach_fd",
     START_UP_INOTIFY_ATTACH,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to attach event handler for norvossh PAM Config file",
     {}},
    {"datastore_bind(/cfg/gl/banner/)",
     START_UP_BANNER_BINDING,
     "ERR_DATASTORE_BIND: Error:=Input/output error(0x5), Location:=SSH BANNER, Failed to bind to datastore",
     {unbind_server, unbind_client}},
    {"datastore_register_notification(/cfg/gl/banner/0x2, 7)",
     START_UP_BANNER_NOTIFICATION,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to register for banner config notification",
     {unbind_server, unbind_client, unbind_banner}},
    {"datastore_register_notification(/cfg/gl/banner/0x3, 7)",
     START_UP_LOGIN_BANNER_NOTIFICATION,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to register for login banner config notification",
     {unbind_server, unbind_client, unbind_banner}},
    {"datastore_bind(/cfg/gl/aaa/banner/)",
     START_UP_AAA_BANNER_BINDING,
     "ERR_DATASTORE_BIND: Error:=Input/output error(0x5), Location:=SSH BANNER AAA, Failed to bind to datastore",
     {unbind_server, unbind_client, unbind_banner}},
    {"datastore_register_notification(/cfg/gl/aaa/banner/0x0, 7)",
     START_UP_AAA_BANNER_NOTIFICATION,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to register for banner config notification",
     {unbind_server, unbind_client, unbind_banner, unbind_aaa_banner}},
    {"datastore_provider_register(/oper/crypto-ssh/gl/session_xml/)",
     START_UP_SESSION_XML_PROVIDER,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to register ssh edm for xml",
     {}},
    {"datastore_provider_register(/oper/crypto-ssh/gl/sshddata/)",
     START_UP_SERVER_SESSION_PROVIDER,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to register ssh edm",
     {}},
    {"datastore_provider_register(/oper/crypto-ssh/client/)",
     START_UP_CLIENT_SESSION_PROVIDER,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to register ssh edm",
     {}},
    {"datastore_provider_register(/oper/crypto-ssh/gl/server-params)",
     START_UP_PARAMETERS_PROVIDER,
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to register ssh param edm",
     {}},
    {"mpp_init(1)",
     START_UP_PROTECTION,
     "ERR_ERRNO: Error:=Input/output error(0x5), MPP init for SSH failed",
     {"mpp_close(1)"}},
    {"mpp_init(64)",
     START_UP_PROTECTION,
     "ERR_ERRNO: Error:=Input/output error(0x5), MPP init for Netconf failed",
     {"mpp_close(1)", "mpp_close(64)"}},
    {"vrf_table_lookup", START_UP_DEFAULT_UNIT, nullptr, {}},
    {"datastore_backend_scan(/cfg/gl/crypto/ssh/server/, 0xfedcba98)",
     START_UP_SCAN,
     "ERR_ERRNO: Error:=Input/output error(0x5), Backend scan failed for server config",
     {"mpp_close(1)", "mpp_close(64)"}},
    {"datastore_backend_scan(/cfg/gl/crypto/ssh/client/, 0xfedcba98)",
     START_UP_SCAN,
     "ERR_ERRNO: Error:=Input/output error(0x5), Backend scan failed for client config",
     {"mpp_close(1)", "mpp_close(64)"}},
};

class start_up_fatal_test : public agent_test, public testing::WithParamInterface<fatal_case> {};

TEST_P(start_up_fatal_test, ends_with_its_own_status) {
    const fatal_case& fatal = GetParam();
    fake_platform::fail(fatal.operation, EIO);
    EXPECT_EQ(start_agent(), fatal.status);
    std::vector<std::string> expected_log;
    if (fatal.log_line != nullptr) {
        expected_log.emplace_back(fatal.log_line);
    }
    EXPECT_EQ(fake_platform::log_texts(), expected_log);

    std::vector<std::string> closing_calls;
    for (const std::string& call : fake_platform::calls()) {
        if (call.starts_with("datastore_unbind(") || call.starts_with("mpp_close(")) {
            closing_calls.push_back(call);
        }
    }
    EXPECT_THAT(closing_calls, ElementsAreArray(fatal.closing_calls));
    const auto unbound = [&](const char* call) { return std::ranges::count(closing_calls, call) == 1; };
    EXPECT_TRUE(!unbound(unbind_server) || agent.server_binding == nullptr);
    EXPECT_TRUE(!unbound(unbind_client) || agent.client_binding == nullptr);
    EXPECT_TRUE(!unbound(unbind_backup) || agent.backup_binding == nullptr);
    EXPECT_TRUE(!unbound(unbind_banner) || agent.banner_binding == nullptr);
    EXPECT_TRUE(!unbound(unbind_aaa_banner) || agent.aaa_banner_binding == nullptr);

    // Nothing runs after the failed step, and the failure is traced.
    EXPECT_EQ(agent.initial_scan_complete, 0u);
    EXPECT_FALSE(fake_platform::trace_lines_of("ssh/cfg-agent/error").empty());
    const auto& calls = fake_platform::calls();
    const auto failed =
        std::ranges::find_if(calls, [&](const std::string& call) { return call.starts_with(fatal.operation); });
    ASSERT_NE(failed, calls.end());
    EXPECT_EQ(static_cast<size_t>(calls.end() - failed), 1 + closing_calls.size());
}

// The parent sees the low eight bits of the status.
TEST_P(start_up_fatal_test, is_the_exit_status_of_the_process) {
    fake_platform::fail(GetParam().operation, EIO);
    EXPECT_EXIT(std::exit(run_agent()), testing::ExitedWithCode(256 + GetParam().status), "");
}

INSTANTIATE_TEST_SUITE_P(steps, start_up_fatal_test, testing::ValuesIn(fatal_cases));

TEST_F(start_up_test, the_exit_statuses_are_these) {
    EXPECT_EQ(START_UP_EVENT_MANAGER, -1);
    EXPECT_EQ(START_UP_DEBUG, -2);
    EXPECT_EQ(START_UP_SERVER_BINDING, -3);
    EXPECT_EQ(START_UP_CLIENT_BINDING, -4);
    EXPECT_EQ(START_UP_FIPS, -6);
    EXPECT_EQ(START_UP_SERVER_VERIFICATION, -7);
    EXPECT_EQ(START_UP_CLIENT_VERIFICATION, -8);
    EXPECT_EQ(START_UP_FILES, -9);
    EXPECT_EQ(START_UP_INOTIFY, -10);
    EXPECT_EQ(START_UP_INOTIFY_WATCH, -11);
    EXPECT_EQ(START_UP_INOTIFY_ATTACH, -12);
    EXPECT_EQ(START_UP_SESSION_XML_PROVIDER, -13);
    EXPECT_EQ(START_UP_SERVER_SESSION_PROVIDER, -14);
    EXPECT_EQ(START_UP_CLIENT_SESSION_PROVIDER, -15);
    EXPECT_EQ(START_UP_PROTECTION, -21);
    EXPECT_EQ(START_UP_PARAMETERS_PROVIDER, -22);
    EXPECT_EQ(START_UP_BACKUP_BINDING, -23);
    EXPECT_EQ(START_UP_BACKUP_VERIFICATION, -24);
    EXPECT_EQ(START_UP_BANNER_BINDING, -26);
    EXPECT_EQ(START_UP_BANNER_NOTIFICATION, -27);
    EXPECT_EQ(START_UP_AAA_BANNER_BINDING, -28);
    EXPECT_EQ(START_UP_AAA_BANNER_NOTIFICATION, -29);
    EXPECT_EQ(START_UP_DEFAULT_UNIT, -31);
    EXPECT_EQ(START_UP_LOGIN_BANNER_NOTIFICATION, -32);
    EXPECT_EQ(START_UP_TELEMETRY_PROVIDER, -33);
    EXPECT_EQ(START_UP_FILE_SYSTEM_LIST, -34);
    EXPECT_EQ(START_UP_SCAN, -35);
}

TEST_F(start_up_test, a_default_unit_that_cannot_be_made_is_told_by_a_debug_line) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    fake_platform::fail("vrf_table_lookup", EIO);
    EXPECT_EQ(start_agent(), START_UP_DEFAULT_UNIT);
    EXPECT_TRUE(fake_platform::debugged("Failed to create SSHD systemd service and config file for vrf:=default"));
}

TEST_F(start_up_test, a_telemetry_provider_that_is_refused_is_fatal) {
    fake_platform::fail("datastore_provider_register(/oper/overlays/gl/crypto_ssh/openconfig-system/)", EIO);
    EXPECT_EQ(start_agent(), START_UP_TELEMETRY_PROVIDER);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=Input/output error(0x5), Failed to register oc ssh telemetry edm",
                            "ERR_ERRNO: Error:=Input/output error(0x5), OC SSH Telemetry EDM init failed, error"));
}

TEST_F(start_up_test, a_missing_datastore_library_fails_the_first_binding) {
    remove_path(paths::datastore_library);
    EXPECT_EQ(start_agent(), START_UP_SERVER_BINDING);
    EXPECT_EQ(fake_platform::count_calls("datastore_bind"), 0u);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(std::string("ERR_DATASTORE_BIND: Error:=") + platform_status_text(DATASTORE_UNAVAILABLE) +
                            "(0x8081c200), Location:=SSH CFG BASE SERVER, Failed to bind to datastore"));
}

TEST_F(start_up_test, an_inotify_instance_that_cannot_be_made_is_fatal) {
    call_faults::fail_call("inotify_init1", EMFILE);
    EXPECT_EXIT(std::exit(run_agent()), testing::ExitedWithCode(256 - 10), "");
    EXPECT_EQ(start_agent(), START_UP_INOTIFY);
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre(failure_text("Too many open files(0x18)",
                                                                     "Failed to initialize inotify for Norvossh PAM "
                                                                     "Config file")));
    EXPECT_FALSE(fake_platform::trace_lines_of("ssh/cfg-agent/error").empty());
    EXPECT_EQ(fake_platform::count_calls("event_manager_attach_fd"), 0u);
}

TEST_F(start_up_test, a_pam_directory_that_cannot_be_watched_is_fatal) {
    call_faults::fail_call("inotify_add_watch", ENOENT);
    EXPECT_EXIT(std::exit(run_agent()), testing::ExitedWithCode(256 - 11), "");
    EXPECT_EQ(start_agent(), START_UP_INOTIFY_WATCH);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(failure_text("No such file or directory(0x2)",
                                         "Failed to adda watch for Norvossh PAM Config file")));
    EXPECT_FALSE(fake_platform::trace_lines_of("ssh/cfg-agent/error").empty());
    EXPECT_EQ(fake_platform::count_calls("event_manager_attach_fd"), 0u);
}

TEST_F(start_up_test, a_file_system_list_that_cannot_be_had_is_fatal) {
    fake_platform::fail("file_system_list_get", EIO);
    EXPECT_EXIT(std::exit(run_agent()), testing::ExitedWithCode(256 - 34), "");
    EXPECT_EQ(start_agent(), START_UP_FILE_SYSTEM_LIST);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_GENERAL: Failed to get fslist",
                            "ERR_GENERAL: Failed to store filesystemlist in shared memory"));
    EXPECT_EQ(fake_platform::count_calls("mpp_init"), 0u);
}

TEST_F(start_up_test, a_file_system_list_that_cannot_be_stored_is_fatal) {
    remove_path("/dev/shmem");
    EXPECT_EQ(start_agent(), START_UP_FILE_SYSTEM_LIST);
    EXPECT_TRUE(fake_platform::logged("ERR_GENERAL", "Failed to store filesystemlist in shared memory"));
}

TEST_F(start_up_test, a_fips_registration_that_fails_is_fatal) {
    fake_platform::fail("datastore_register_notification(/cfg/gl/crypto/fipsmode/value, 7)", EIO);
    EXPECT_EXIT(std::exit(run_agent()), testing::ExitedWithCode(256 - 6), "");
    EXPECT_EQ(start_agent(), START_UP_FIPS);
}

TEST_F(start_up_test, an_empty_directory_that_cannot_be_made_is_fatal) {
    remove_path("/var/empty");
    scratch_root::set_read_only("/var", true);
    EXPECT_EQ(start_agent(), START_UP_FILES);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(failure_text("Read-only file system(0x1e)", "Failed to create /var/empty")));
    EXPECT_EQ(fake_platform::count_calls("datastore_bind"), 0u);
}

TEST_F(start_up_test, a_default_server_file_that_cannot_be_made_is_fatal) {
    remove_path("/var/opt/norvo");
    EXPECT_EQ(start_agent(), START_UP_FILES);
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre(failure_text("No such file or directory(0x2)",
                                                                     "Failed to create a default configuration file")));
    EXPECT_EQ(fake_platform::count_calls("datastore_bind"), 0u);
}

TEST_F(start_up_test, a_default_client_file_that_cannot_be_made_is_fatal) {
    std::filesystem::create_directories(std::string(paths::client_file) + "/in_the_way");
    EXPECT_EQ(start_agent(), START_UP_FILES);
    EXPECT_TRUE(path_exists(paths::server_file));
    EXPECT_EQ(fake_platform::count_calls("datastore_bind"), 0u);
}

// --- Failures that are not fatal ------------------------------------------------------------------------------------

TEST_F(start_up_test, trace_buffers_are_not_needed) {
    fake_platform::fail("trace_buffer_create", ENOMEM);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_EQ(fake_platform::log_texts().size(), 2u);
}

TEST_F(start_up_test, a_shelf_manager_is_not_needed) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    fake_platform::fail("shelf_manager_create", EIO);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("WARN_ERRNO: Error:=Input/output error(0x5), SM handle create failed"));
    EXPECT_TRUE(fake_platform::debugged("Error:=Input/output error(0x5), SM handle create failed"));
    EXPECT_EQ(fake_platform::count_calls("shelf_manager_connect"), 0u);
}

TEST_F(start_up_test, a_shelf_manager_that_is_not_there_is_not_needed) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    fake_platform::fail("shelf_manager_connect", ECONNREFUSED);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    // The two texts differ by a blank.
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("WARN_ERRNO: Error:=Connection refused(0x6f), Failed to register for upgrade "
                            "notification/Sessions might not shutdown gracefully during system upgrades"));
    EXPECT_TRUE(
        fake_platform::debugged("Error:=Connection refused(0x6f), Failed to register for upgrade "
                                "notification/Sessions might not shutdowngracefully during system upgrades"));
}

TEST_F(start_up_test, namespace_messages_are_not_needed) {
    fake_platform::fail("event_manager_attach_message", EIO);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_DETAILS: Event message attach failed  Input/output error "));
}

// --- The loop -------------------------------------------------------------------------------------------------------

TEST_F(start_up_test, the_agent_goes_on_in_its_loop) {
    fake_platform::queue_block_failure(EINTR);
    fake_platform::queue_event([] { std::exit(agent.initial_scan_complete == 1 ? 42 : 1); });
    EXPECT_EXIT(run_agent(), testing::ExitedWithCode(42), "");
}

// --- A start that is killed -----------------------------------------------------------------------------------------

TEST_F(start_up_test, killed_anywhere_the_next_start_completes_the_files) {
    const auto undisturbed = syscall_faults::run({}, [] { return start_up() == START_UP_DONE ? 0 : 1; });
    ASSERT_EQ(undisturbed.status, 0);
    const auto server_lines = sorted_lines(paths::server_file);
    const auto client_lines = sorted_lines(paths::client_file);
    ASSERT_GT(undisturbed.calls, 100u);
    for (uint32_t call = 1; call <= undisturbed.calls; call += 3) {
        remove_path(paths::configuration_directory);
        remove_path(paths::pam_file);
        const auto killed = syscall_faults::run({syscall_faults::fault::kill, call},
                                                [] { return start_up() == START_UP_DONE ? 0 : 1; });
        SCOPED_TRACE("killed before call " + std::to_string(call) + ", " + killed.name);
        ASSERT_TRUE(killed.killed);
        fake_platform::set_respawn_count(2);
        const auto next = syscall_faults::run({}, [] { return start_up() == START_UP_DONE ? 0 : 1; });
        fake_platform::set_respawn_count(1);
        ASSERT_EQ(next.status, 0);
        EXPECT_EQ(sorted_lines(paths::server_file), server_lines);
        EXPECT_EQ(sorted_lines(paths::client_file), client_lines);
        expect_golden("host/golden/norvosshd", read_file(paths::pam_file));
    }
}

}  // namespace
