#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "call_faults.h"
#include "core/debug.h"
#include "scratch_root.h"
#include "start_up_test.h"

namespace {

using testing::ElementsAre;

using start_up_failures_test = agent_test;

std::string failure_text(const char* error, const char* message) {
    return std::string("ERR_ERRNO: Error:=") + error + ", " + message;
}

TEST_F(start_up_failures_test, a_default_unit_that_cannot_be_created_only_prints_a_debug_line) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    fake_platform::fail("vrf_table_lookup", EIO);
    EXPECT_EQ(start_agent(), START_UP_DEFAULT_UNIT);
    EXPECT_TRUE(fake_platform::debugged("Failed to create SSHD systemd service and config file for vrf:=default"));
}

TEST_F(start_up_failures_test, a_telemetry_provider_that_is_refused_is_fatal) {
    fake_platform::fail("datastore_provider_register(/oper/overlays/gl/crypto_ssh/openconfig-system/)", EIO);
    EXPECT_EQ(start_agent(), START_UP_TELEMETRY_PROVIDER);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=Input/output error(0x5), Failed to register oc ssh telemetry edm",
                            "ERR_ERRNO: Error:=Input/output error(0x5), OC SSH Telemetry EDM init failed, error"));
}

TEST_F(start_up_failures_test, a_missing_datastore_library_fails_the_first_binding) {
    remove_path(paths::datastore_library);
    EXPECT_EQ(start_agent(), START_UP_SERVER_BINDING);
    EXPECT_EQ(fake_platform::count_calls("datastore_bind"), 0u);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(std::string("ERR_DATASTORE_BIND: Error:=") + platform_status_text(DATASTORE_UNAVAILABLE) +
                            "(0x8081c200), Location:=SSH CFG BASE SERVER, Failed to bind to datastore"));
}

TEST_F(start_up_failures_test, an_inotify_instance_that_cannot_be_created_is_fatal) {
    call_faults::fail_call("inotify_init1", EMFILE);
    EXPECT_EXIT(std::exit(run_agent()), testing::ExitedWithCode(256 - 10), "");
    EXPECT_EQ(start_agent(), START_UP_INOTIFY);
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre(failure_text("Too many open files(0x18)",
                                                                     "Failed to initialize inotify for Norvossh PAM "
                                                                     "Config file")));
    EXPECT_FALSE(fake_platform::trace_lines_of("ssh/cfg-agent/error").empty());
    EXPECT_EQ(fake_platform::count_calls("event_manager_attach_fd"), 0u);
}

TEST_F(start_up_failures_test, a_pam_directory_that_cannot_be_watched_is_fatal) {
    call_faults::fail_call("inotify_add_watch", ENOENT);
    EXPECT_EXIT(std::exit(run_agent()), testing::ExitedWithCode(256 - 11), "");
    EXPECT_EQ(start_agent(), START_UP_INOTIFY_WATCH);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(failure_text("No such file or directory(0x2)",
                                         "Failed to adda watch for Norvossh PAM Config file")));
    EXPECT_FALSE(fake_platform::trace_lines_of("ssh/cfg-agent/error").empty());
    EXPECT_EQ(fake_platform::count_calls("event_manager_attach_fd"), 0u);
}

TEST_F(start_up_failures_test, a_file_system_list_that_cannot_be_read_is_fatal) {
    fake_platform::fail("file_system_list_get", EIO);
    EXPECT_EXIT(std::exit(run_agent()), testing::ExitedWithCode(256 - 34), "");
    EXPECT_EQ(start_agent(), START_UP_FILE_SYSTEM_LIST);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_GENERAL: Failed to get fslist",
                            "ERR_GENERAL: Failed to store filesystemlist in shared memory"));
    EXPECT_EQ(fake_platform::count_calls("mpp_init"), 0u);
}

TEST_F(start_up_failures_test, a_file_system_list_that_cannot_be_stored_is_fatal) {
    remove_path("/dev/shmem");
    EXPECT_EQ(start_agent(), START_UP_FILE_SYSTEM_LIST);
    EXPECT_TRUE(fake_platform::logged("ERR_GENERAL", "Failed to store filesystemlist in shared memory"));
}

TEST_F(start_up_failures_test, a_failed_fips_registration_is_fatal) {
    fake_platform::fail("datastore_register_notification(/cfg/gl/crypto/fipsmode/value, 7)", EIO);
    EXPECT_EXIT(std::exit(run_agent()), testing::ExitedWithCode(256 - 6), "");
    EXPECT_EQ(start_agent(), START_UP_FIPS);
}

TEST_F(start_up_failures_test, an_empty_directory_that_cannot_be_created_is_fatal) {
    remove_path("/var/empty");
    scratch_root::set_read_only("/var", true);
    EXPECT_EQ(start_agent(), START_UP_FILES);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(failure_text("Read-only file system(0x1e)", "Failed to create /var/empty")));
    EXPECT_EQ(fake_platform::count_calls("datastore_bind"), 0u);
}

TEST_F(start_up_failures_test, a_default_server_file_that_cannot_be_created_is_fatal) {
    remove_path("/var/opt/norvo");
    EXPECT_EQ(start_agent(), START_UP_FILES);
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre(failure_text("No such file or directory(0x2)",
                                                                     "Failed to create a default configuration file")));
    EXPECT_EQ(fake_platform::count_calls("datastore_bind"), 0u);
}

TEST_F(start_up_failures_test, a_default_client_file_that_cannot_be_created_is_fatal) {
    std::filesystem::create_directories(std::string(paths::client_file) + "/in_the_way");
    EXPECT_EQ(start_agent(), START_UP_FILES);
    EXPECT_TRUE(path_exists(paths::server_file));
    EXPECT_EQ(fake_platform::count_calls("datastore_bind"), 0u);
}

TEST_F(start_up_failures_test, starts_without_trace_buffers) {
    fake_platform::fail("trace_buffer_create", ENOMEM);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_EQ(fake_platform::log_texts().size(), 2u);
}

TEST_F(start_up_failures_test, starts_without_a_shelf_manager_handle) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    fake_platform::fail("shelf_manager_create", EIO);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("WARN_ERRNO: Error:=Input/output error(0x5), SM handle create failed"));
    EXPECT_TRUE(fake_platform::debugged("Error:=Input/output error(0x5), SM handle create failed"));
    EXPECT_EQ(fake_platform::count_calls("shelf_manager_connect"), 0u);
}

TEST_F(start_up_failures_test, starts_without_a_connection_to_the_shelf_manager) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    fake_platform::fail("shelf_manager_connect", ECONNREFUSED);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    // The two texts differ by one space.
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("WARN_ERRNO: Error:=Connection refused(0x6f), Failed to register for upgrade "
                            "notification/Sessions might not shutdown gracefully during system upgrades"));
    EXPECT_TRUE(
        fake_platform::debugged("Error:=Connection refused(0x6f), Failed to register for upgrade "
                                "notification/Sessions might not shutdowngracefully during system upgrades"));
}

TEST_F(start_up_failures_test, starts_without_namespace_messages) {
    fake_platform::fail("event_manager_attach_message", EIO);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_DETAILS: Event message attach failed  Input/output error "));
}

}  // namespace
