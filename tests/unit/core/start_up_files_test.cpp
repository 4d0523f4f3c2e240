#include <filesystem>

#include "scratch_root.h"
#include "start_up_test.h"
#include "syscall_faults.h"

namespace {

using start_up_files_test = agent_test;

TEST_F(start_up_files_test, leaves_complete_default_files) {
    EXPECT_EQ(start_agent(), START_UP_DONE);
    expect_golden("core/golden/fresh_start/sshd_config", read_file(paths::server_file));
    expect_golden("core/golden/fresh_start/ssh_config", read_file(paths::client_file));
    EXPECT_TRUE(std::filesystem::is_directory("/var/empty"));
    EXPECT_EQ(mode_of("/var/empty"), mode_t{0755});
    EXPECT_TRUE(path_exists("/etc/systemd/system/sshd_service_default.service"));
    EXPECT_TRUE(path_exists("/etc/systemd/system/sshd_conf_default.conf"));
}

TEST_F(start_up_files_test, an_existing_empty_directory_is_accepted) {
    std::filesystem::create_directories("/var/empty");
    EXPECT_EQ(start_agent(), START_UP_DONE);
}

TEST_F(start_up_files_test, a_fresh_start_empties_the_default_files) {
    for (const uint32_t count : {0u, 1u}) {
        fake_platform::set_respawn_count(count);
        write_file(paths::server_file, "Banner /old\n");
        write_file(paths::client_file, "Banner /old\n");
        EXPECT_EQ(start_agent(), START_UP_DONE);
        expect_golden("core/golden/fresh_start/sshd_config", read_file(paths::server_file));
        expect_golden("core/golden/fresh_start/ssh_config", read_file(paths::client_file));
        EXPECT_EQ(agent_handles.respawn_count, count);
    }
}

// Every line stays. Each start writes the host-key lines again, at the end.
TEST_F(start_up_files_test, a_restart_after_a_failure_keeps_the_default_files) {
    fake_platform::set_respawn_count(2);
    const std::string client_lines = read_file(TEST_SOURCE_DIR "/core/golden/fresh_start/ssh_config") + "# kept\n";
    write_file(paths::server_file,
               "RateLimitQd 60\n" + read_file(TEST_SOURCE_DIR "/core/golden/fresh_start/sshd_config"));
    write_file(paths::client_file, client_lines);
    const auto server_lines = sorted_lines(paths::server_file);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_EQ(sorted_lines(paths::server_file), server_lines);
    EXPECT_EQ(file_lines(paths::server_file).front(), "RateLimitQd 60");
    EXPECT_EQ(file_lines(paths::server_file).back(), "HostKey  /pkg/dsa");
    EXPECT_EQ(read_file(paths::client_file), client_lines);
}

TEST_F(start_up_files_test, killed_anywhere_the_next_start_completes_the_files) {
    scratch_root::add_namespace_file("vrf-red");
    stub_commands::set_output("systemctl is-active", "inactive\n");
    fake_platform::store(fake_platform::set_number("/cfg/gl/crypto/ssh/server/cmn/timeout", 77));
    fake_platform::store(fake_platform::set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/red", "%d%S%S",
                                                  {std::nullopt, std::nullopt, std::nullopt}));
    const std::string vrf_file = std::string(paths::vrf_server_file_prefix) + "red";
    const std::string unit = std::string(paths::service_unit_prefix) + "red.service";
    const auto undisturbed = syscall_faults::run({}, [] { return start_up() == START_UP_DONE ? 0 : 1; });
    ASSERT_EQ(undisturbed.status, 0);
    const auto server_lines = sorted_lines(paths::server_file);
    const auto client_lines = sorted_lines(paths::client_file);
    const auto vrf_lines = sorted_lines(vrf_file);
    const std::string unit_text = read_file(unit);
    ASSERT_THAT(vrf_lines, testing::IsSupersetOf({"LoginGraceTime 77", "Port 22"}));
    const std::vector<uint32_t> points = syscall_faults::kill_points(undisturbed);
    ASSERT_GT(points.size(), 30u);
    constexpr size_t points_max = 24;
    for (const uint32_t call : syscall_faults::chosen_calls(points, points_max)) {
        remove_path(paths::configuration_directory);
        remove_path(paths::pam_file);
        remove_path(unit);
        const auto killed = syscall_faults::run({syscall_faults::fault::kill, call},
                                                [] { return start_up() == START_UP_DONE ? 0 : 1; });
        SCOPED_TRACE("killed before call " + std::to_string(call) + ", " + killed.name);
        ASSERT_TRUE(killed.killed);
        fake_platform::set_respawn_count(2);
        const int next = syscall_faults::run_undisturbed([] { return start_up() == START_UP_DONE ? 0 : 1; });
        fake_platform::set_respawn_count(1);
        ASSERT_EQ(next, 0);
        EXPECT_EQ(sorted_lines(paths::server_file), server_lines);
        EXPECT_EQ(sorted_lines(paths::client_file), client_lines);
        EXPECT_EQ(sorted_lines(vrf_file), vrf_lines);
        EXPECT_EQ(read_file(unit), unit_text);
        expect_golden("host/golden/norvosshd", read_file(paths::pam_file));
    }
}

}  // namespace
