#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>

#include "start_up_test.h"

namespace {

using testing::ElementsAreArray;

using start_up_status_test = agent_test;

struct fatal_case {
    const char* operation;
    start_up_status status;
    const char* log_line;
    std::vector<const char*> closing_calls;  ///< unbind and close calls, in order
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
    EXPECT_TRUE(!unbound(unbind_server) || agent_handles.server_binding == nullptr);
    EXPECT_TRUE(!unbound(unbind_client) || agent_handles.client_binding == nullptr);
    EXPECT_TRUE(!unbound(unbind_backup) || agent_handles.backup_binding == nullptr);
    EXPECT_TRUE(!unbound(unbind_banner) || agent_handles.banner_binding == nullptr);
    EXPECT_TRUE(!unbound(unbind_aaa_banner) || agent_handles.aaa_banner_binding == nullptr);

    // Nothing runs after the failed step, and the failure is traced.
    EXPECT_EQ(agent_handles.initial_scan_complete, 0u);
    EXPECT_FALSE(fake_platform::trace_lines_of("ssh/cfg-agent/error").empty());
    const auto& calls = fake_platform::calls();
    const auto failed =
        std::ranges::find_if(calls, [&](const std::string& call) { return call.starts_with(fatal.operation); });
    ASSERT_NE(failed, calls.end());
    const auto is_report = [](const std::string& call) { return call.starts_with("enforcement_failed("); };
    EXPECT_EQ(calls.end() - failed - std::count_if(failed, calls.end(), is_report),
              static_cast<std::ptrdiff_t>(1 + closing_calls.size()));
}

// The parent sees the low eight bits of the status.
TEST_P(start_up_fatal_test, is_the_exit_status_of_the_process) {
    fake_platform::fail(GetParam().operation, EIO);
    EXPECT_EXIT(std::exit(run_agent()), testing::ExitedWithCode(256 + GetParam().status), "");
}

INSTANTIATE_TEST_SUITE_P(steps, start_up_fatal_test, testing::ValuesIn(fatal_cases));

/// The test that provokes a status; empty for a case of the table. The compiler refuses a status without a case here.
std::string_view test_of(start_up_status status) {
    switch (status) {
        case START_UP_DONE:
            return "start_up_test.takes_its_steps_in_their_order";
        case START_UP_NOT_PRIMARY:
            return "start_up_test.a_failed_wait_ends_silently_with_status_1";
        case START_UP_TELEMETRY_PROVIDER:
            return "start_up_failures_test.a_telemetry_provider_that_is_refused_is_fatal";
        case START_UP_INOTIFY:
            return "start_up_failures_test.an_inotify_instance_that_cannot_be_created_is_fatal";
        case START_UP_INOTIFY_WATCH:
            return "start_up_failures_test.a_pam_directory_that_cannot_be_watched_is_fatal";
        case START_UP_FILE_SYSTEM_LIST:
            return "start_up_failures_test.a_file_system_list_that_cannot_be_read_is_fatal";
        case START_UP_FIPS:
            return "start_up_failures_test.a_failed_fips_registration_is_fatal";
        case START_UP_FILES:
            return "start_up_failures_test.an_empty_directory_that_cannot_be_created_is_fatal";
        case START_UP_EVENT_MANAGER:
        case START_UP_DEBUG:
        case START_UP_SERVER_BINDING:
        case START_UP_CLIENT_BINDING:
        case START_UP_SERVER_VERIFICATION:
        case START_UP_CLIENT_VERIFICATION:
        case START_UP_INOTIFY_ATTACH:
        case START_UP_SESSION_XML_PROVIDER:
        case START_UP_SERVER_SESSION_PROVIDER:
        case START_UP_CLIENT_SESSION_PROVIDER:
        case START_UP_PROTECTION:
        case START_UP_PARAMETERS_PROVIDER:
        case START_UP_BACKUP_BINDING:
        case START_UP_BACKUP_VERIFICATION:
        case START_UP_BANNER_BINDING:
        case START_UP_BANNER_NOTIFICATION:
        case START_UP_AAA_BANNER_BINDING:
        case START_UP_AAA_BANNER_NOTIFICATION:
        case START_UP_DEFAULT_UNIT:
        case START_UP_LOGIN_BANNER_NOTIFICATION:
        case START_UP_SCAN:
            return "";
    }
    return "no status";
}

bool test_exists(std::string_view name) {
    const testing::UnitTest& all = *testing::UnitTest::GetInstance();
    for (int i = 0; i < all.total_test_suite_count(); i++) {
        const testing::TestSuite& suite = *all.GetTestSuite(i);
        for (int k = 0; k < suite.total_test_count(); k++) {
            if (name == std::string(suite.name()) + "." + suite.GetTestInfo(k)->name()) {
                return true;
            }
        }
    }
    return false;
}

TEST_F(start_up_status_test, every_status_is_provoked) {
    size_t statuses = 0;
    for (int number = 1; number >= -255; number--) {
        const auto status = static_cast<start_up_status>(number);
        const std::string_view test = test_of(status);
        if (test == "no status") {
            continue;
        }
        statuses++;
        EXPECT_TRUE(test.empty() ? std::ranges::count(fatal_cases, status, &fatal_case::status) > 0 : test_exists(test))
            << number << " " << test;
    }
    EXPECT_EQ(statuses, 29u);
}

TEST_F(start_up_status_test, exit_statuses_do_not_change) {
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

}  // namespace
