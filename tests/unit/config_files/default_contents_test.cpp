#include "config_files/default_contents.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "../agent_test.h"
#include "config_files/parameter_table.h"
#include "scratch_root.h"
#include "syscall_faults.h"

namespace {

using default_contents_test = agent_test;

// --- Both default files at start-up ----------------------------------------------------------------------------------

TEST_F(default_contents_test, missing_files_are_created_empty) {
    EXPECT_EQ(prepare_default_files(), 0);
    EXPECT_EQ(read_file(paths::server_file), "");
    EXPECT_EQ(read_file(paths::client_file), "");
    EXPECT_EQ(mode_of(paths::configuration_directory), mode_t{0755});
}

TEST_F(default_contents_test, a_fresh_start_empties_the_files) {
    for (const uint32_t count : {0u, 1u}) {
        agent_handles.respawn_count = count;
        write_file(paths::server_file, "old\n");
        write_file(paths::client_file, "old\n");
        EXPECT_EQ(prepare_default_files(), 0);
        EXPECT_EQ(read_file(paths::server_file), "") << count;
        EXPECT_EQ(read_file(paths::client_file), "") << count;
    }
}

TEST_F(default_contents_test, a_restart_after_a_failure_keeps_the_files) {
    for (const uint32_t count : {2u, 3u, 100u}) {
        agent_handles.respawn_count = count;
        write_file(paths::server_file, "old\n");
        write_file(paths::client_file, "old\n");
        EXPECT_EQ(prepare_default_files(), 0);
        EXPECT_EQ(read_file(paths::server_file), "old\n") << count;
        EXPECT_EQ(read_file(paths::client_file), "old\n") << count;
    }
}

TEST_F(default_contents_test, a_restart_after_a_failure_creates_a_missing_file) {
    agent_handles.respawn_count = 2;
    write_file(paths::client_file, "old\n");
    EXPECT_EQ(prepare_default_files(), 0);
    EXPECT_EQ(read_file(paths::server_file), "");
    EXPECT_EQ(read_file(paths::client_file), "old\n");
}

TEST_F(default_contents_test, a_file_that_cannot_be_removed_is_traced_and_emptied_nevertheless) {
    agent_handles.respawn_count = 1;
    write_file(paths::server_file, "old\n");
    const auto outcome = syscall_faults::run({}, [] { return prepare_default_files() == 0 ? 0 : 1; });
    EXPECT_EQ(outcome.status, 0);
    write_file(paths::server_file, "old\n");
    // Finds the removal among the calls and makes it fail.
    for (uint32_t call = 1; call <= outcome.calls; call++) {
        write_file(paths::server_file, "old\n");
        const auto failed = syscall_faults::run({syscall_faults::fault::error, call, false, EBUSY}, [] {
            const int result = prepare_default_files();
            return result == 0 && fake_platform::trace_lines_of("ssh/cfg-agent/error").size() == 1 ? 0 : 1;
        });
        if (failed.name == "unlink") {
            EXPECT_EQ(failed.status, 0);
            EXPECT_EQ(read_file(paths::server_file), "");
            return;
        }
    }
    FAIL() << "the file was never removed";
}

TEST_F(default_contents_test, a_file_that_cannot_be_created_is_a_failure) {
    std::filesystem::create_directories(std::string(paths::client_file) + "/in_the_way");
    EXPECT_EQ(prepare_default_files(), -1);
    EXPECT_TRUE(path_exists(paths::server_file));
    remove_path(paths::client_file);
    std::filesystem::create_directories(std::string(paths::server_file) + "_elsewhere");
    remove_path("/var/opt/norvo");
    EXPECT_EQ(prepare_default_files(), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(default_contents_test, the_lines_of_every_start) {
    EXPECT_EQ(prepare_default_files(), 0);
    write_initial_lines();
    expect_golden("config_files/golden/initial_sshd_config", read_file(paths::server_file));
    expect_golden("config_files/golden/initial_ssh_config", read_file(paths::client_file));
}

TEST_F(default_contents_test, the_lines_of_every_start_keep_the_order_of_a_kept_file) {
    write_file(paths::server_file, "MaxAuthTries 20\nBanner /x\nUsePAM no\n");
    write_file(paths::client_file, "");
    write_initial_lines();
    EXPECT_TRUE(read_file(paths::server_file).starts_with("MaxAuthTries 20\nBanner /x\nUsePAM yes\n"));
}

// The client's initial limit is the server's.
TEST_F(default_contents_test, the_clients_rekey_limit_is_taken_from_the_server) {
    EXPECT_EQ(prepare_default_files(), 0);
    server_config.parameters[SERVER_REKEY_LIMIT].current = "7M 7m";
    client_config.parameters[CLIENT_REKEY_LIMIT].current = "8M 8m";
    write_initial_lines();
    EXPECT_TRUE(read_file(paths::client_file).starts_with("RekeyLimit 7M 7m\n"));
}

}  // namespace
