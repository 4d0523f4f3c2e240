#include "reconcile/reconciliation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "config_files/restart_record.h"
#include "config_files/vrf_node.h"
#include "reconciliation_support.h"
#include "scratch_root.h"
#include "stub/rules.h"

namespace {

using fake_platform::difference;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

constexpr char show_units[] = "systemctl show";

// --- At rest ---------------------------------------------------------------------------------------------------------

TEST_F(reconciliation_test, after_a_start_nothing_differs) {
    start();
    const auto found = fake_platform::reconcile(false);
    EXPECT_TRUE(found.registered);
    EXPECT_EQ(found.remaining, 0);
    EXPECT_THAT(found.differences, IsEmpty());
    EXPECT_THAT(restarts(), IsEmpty());
}

TEST_F(reconciliation_test, after_settings_were_set_and_deleted_nothing_differs) {
    start();
    const std::vector<fake_platform::change> settings = {
        timeout(77),
        fake_platform::set_number(server_case.tree + "rate_limit", 5),
        fake_platform::set_number(server_case.tree + "session_limit", 6),
        fake_platform::set_number(server_case.tree + "logging", 1),
        fake_platform::set_number(server_case.tree + "dscp", 10),
        fake_platform::set_number(server_case.tree + "rekey_time", 30),
        fake_platform::set_number(server_case.tree + "rekey_volume", 2048),
        fake_platform::set_number(server_case.tree + "tcp_window_scale", 3),
        fake_platform::set_number(server_case.tree + "max_auth_limit", 9),
        fake_platform::set_number(server_case.tree + "port_forwarding", 1),
        fake_platform::set_text(server_case.tree + "trustpoint/host", "host"),
        fake_platform::set_number(server_case.tree + "trustpoint/user/ca", 1),
        fake_platform::set_tuple(server_case.tree + "certificate/username", "%d%d", {1, 1}),
        kex_change(server_case, {"ecdh-sha2-nistp256"}),
        cipher_change(server_case, {"aes128-ctr"}),
        legacy_change(server_case, {1}),
        mac_change(server_case, "hmac_sha1"),
        host_key_change({1, 0, 0, 0, 0, 0, 0, 1, 1, 0}),
        fake_platform::set_number(client_case.tree + "dscp", 12),
        fake_platform::set_number(client_case.tree + "rekey_time", 31),
        fake_platform::set_number(client_case.tree + "v2", 1),
        kex_change(client_case, {"ecdh-sha2-nistp384"}),
        mac_change(client_case, "hmac_sha512"),
        vrf_item("red", "vrf-netconf"),
        fake_platform::set_number("/cfg/gl/crypto/ssh/server/sshd/v2", 1),
        fake_platform::set_number(fips_item, 1),
    };
    for (const fake_platform::change& setting : settings) {
        commit_ok(setting);
        EXPECT_THAT(fake_platform::reconcile(false).differences, IsEmpty()) << setting.path;
    }
    die_and_start();
    EXPECT_THAT(restarts(), IsEmpty()) << "after a restart with everything set";
    EXPECT_THAT(fake_platform::reconcile(false).differences, IsEmpty());
    for (const fake_platform::change& setting : settings) {
        commit_ok(fake_platform::remove(setting.path));
        EXPECT_THAT(fake_platform::reconcile(false).differences, IsEmpty()) << "without " << setting.path;
    }
    for (const uint32_t respawn_count : {2, 1}) {
        die_and_start(respawn_count);
        EXPECT_THAT(restarts(), IsEmpty()) << "after restart " << respawn_count;
        EXPECT_THAT(stops(), IsEmpty());
    }
}

// --- Interrupted -----------------------------------------------------------------------------------------------------

TEST_F(reconciliation_test, a_kept_file_that_differs_is_replaced_and_its_server_restarted) {
    start();
    commit_ok(timeout(77));
    replace_line(file_of("red"), "LoginGraceTime 77", "LoginGraceTime 30");
    die_and_start();
    EXPECT_THAT(file_lines(file_of("red")), Contains("LoginGraceTime 77"));
    EXPECT_THAT(restarts(), ElementsAre(restart_of("red")));
    EXPECT_THAT(fake_platform::log_texts(),
                Contains("WARNING_GENERAL: The server file of VRF red was replaced: it differs in LoginGraceTime"));
}

TEST_F(reconciliation_test, a_server_whose_restart_was_due_is_restarted) {
    start();
    write_file(paths::restart_record, "18446744073709551615\nred\n");
    die_and_start();
    EXPECT_THAT(restarts(), ElementsAre(restart_of("red")));
    EXPECT_FALSE(path_exists(paths::restart_record));
}

TEST_F(reconciliation_test, fips_mode_switched_off_while_the_agent_was_down_leaves_no_filtered_list) {
    start();
    turn_fips(true);
    EXPECT_THAT(file_lines(file_of("red")), Contains("NorvoSSHFipsMode yes"));
    fake_platform::store(fake_platform::remove(fips_item));
    die_and_start();
    for (const std::string& file : {file_of("red"), file_of("blue")}) {
        EXPECT_THAT(file_lines(file), Not(Contains("NorvoSSHFipsMode yes")));
        EXPECT_THAT(file_lines(file), Not(Contains(HasSubstr("aes256-gcm@openssh.com,"))));
    }
    EXPECT_THAT(restarts(), UnorderedElementsAre(restart_of("red"), restart_of("blue")));
}

TEST_F(reconciliation_test, in_fips_mode_a_restart_offers_nothing_that_is_forbidden) {
    fake_platform::store(kex_change(server_case, {"curve25519-sha256", "ecdh-sha2-nistp256"}));
    fake_platform::store(cipher_change(server_case, {"chacha20-poly1305@openssh.com", "aes128-ctr"}));
    fake_platform::store(kex_change(client_case, {"curve25519-sha256", "ecdh-sha2-nistp384"}));
    fake_platform::store(cipher_change(client_case, {"chacha20-poly1305@openssh.com", "aes256-ctr"}));
    fake_platform::store(host_key_change({1, 0, 0, 0, 0, 0, 1, 1, 0, 0}));
    fake_platform::store(fake_platform::set_number(fips_item, 1));
    start();
    die_and_start();
    EXPECT_THAT(restarts(), IsEmpty());
    for (const std::string& file : {std::string(paths::server_file), std::string(paths::client_file), file_of("red")}) {
        const std::string text = read_file(file);
        for (const char* refused : {"curve25519", "chacha20", "ed25519"}) {
            EXPECT_THAT(text, Not(HasSubstr(refused))) << file;
        }
    }
    EXPECT_EQ(value(paths::server_file, "KexAlgorithms"), "ecdh-sha2-nistp256");
    EXPECT_EQ(value(paths::client_file, "Ciphers"), "aes256-ctr");
    EXPECT_THAT(values(file_of("red"), "HostKey"), ElementsAre("/pkg/ecdsa-sha2-nistp256", "/pkg/rsa"));
    turn_fips(false);
    EXPECT_EQ(value(file_of("red"), "KexAlgorithms"), "curve25519-sha256,ecdh-sha2-nistp256");
    EXPECT_EQ(value(file_of("red"), "Ciphers"), "chacha20-poly1305@openssh.com,aes128-ctr");
}

TEST_F(reconciliation_test, a_server_that_nothing_requests_is_stopped) {
    start();
    fake_platform::store(fake_platform::remove(vrf_item("red").path));
    die_and_start();
    EXPECT_THAT(stops(), ElementsAre("systemctl stop sshd_service_red"));
    EXPECT_FALSE(path_exists(file_of("red")));
    EXPECT_TRUE(path_exists(unit_of("red")));
    EXPECT_THAT(restarts(), IsEmpty());
}

TEST_F(reconciliation_test, the_debug_level_of_an_earlier_process_does_not_remain) {
    start();
    fake_platform::set_debug_flag(debug_server_l3, true);
    fake_platform::set_debug_flag(debug_client_l2, true);
    EXPECT_THAT(file_lines(file_of("red")), Contains("LogLevel DEBUG3"));
    fake_platform::preset_debug_flag(debug_server_l3, false);
    fake_platform::preset_debug_flag(debug_client_l2, false);
    die_and_start();
    for (const std::string& file : {std::string(paths::server_file), std::string(paths::client_file), file_of("red")}) {
        EXPECT_THAT(read_file(file), Not(HasSubstr("LogLevel"))) << file;
    }
}

TEST_F(reconciliation_test, a_debug_level_that_is_still_on_is_written) {
    fake_platform::preset_debug_flag(debug_server_l2, true);
    start();
    EXPECT_THAT(file_lines(file_of("red")), Contains("LogLevel DEBUG2"));
    fake_platform::set_debug_flag(debug_server_l2, false);
    EXPECT_THAT(read_file(file_of("red")), Not(HasSubstr("LogLevel")));
}

// --- Drift -----------------------------------------------------------------------------------------------------------

TEST_F(reconciliation_test, lines_of_the_default_file) {
    start();
    replace_line(paths::server_file, "MaxSessions 16", "MaxSessions 1");
    expect_repaired({of_file(paths::server_file, "differs in MaxSessions")}, {});
    std::filesystem::remove(paths::server_file);
    expect_repaired({of_file(paths::server_file, "No such file or directory")}, {});
}

/// The sorted lines of a server's file, with one line per host key and no double spaces.
std::vector<std::string> settings_of(const std::string& path) {
    std::vector<std::string> settings;
    for (const std::string& line : file_lines(path)) {
        if (!line.starts_with("HostKey ")) {
            settings.push_back(line);
            continue;
        }
        std::istringstream keys(line.substr(line.find_first_not_of(' ', std::strlen("HostKey "))));
        for (std::string key; std::getline(keys, key, ',');) {
            settings.push_back("HostKey " + key);
        }
    }
    std::ranges::sort(settings);
    return settings;
}

// A file created from the table has the table's order and all host keys on one line. A file written at start-up lacks
// the two limits, unless they are configured, and the two lists that a start without FIPS mode removes: their defaults
// apply.
TEST_F(reconciliation_test, a_default_file_made_from_the_table_has_the_settings_that_a_start_writes) {
    start();
    commit_ok(timeout(77));
    commit_ok(host_key_change({1, 0, 0, 0, 0, 0, 0, 1, 1, 0}));
    die_and_start(1);
    const std::string started = read_file(paths::server_file);
    const std::vector<std::string> settings = settings_of(paths::server_file);
    EXPECT_THAT(settings, testing::IsSupersetOf({"LoginGraceTime 77", "HostKey /pkg/ecdsa-sha2-nistp256"}));

    std::filesystem::remove(paths::server_file);
    expect_repaired({of_file(paths::server_file, "No such file or directory")}, {});
    std::vector<std::string> added;
    const std::vector<std::string> made = settings_of(paths::server_file);
    EXPECT_TRUE(std::ranges::includes(made, settings)) << testing::PrintToString(made);
    std::ranges::set_difference(made, settings, std::back_inserter(added));
    EXPECT_THAT(added, ElementsAre(testing::StartsWith("Ciphers aes128-ctr,"),
                                   testing::StartsWith("KexAlgorithms ecdh-sha2-nistp521,"), "RateLimitQd 60",
                                   "SessionLimitQd 64"));

    die_and_start(1);
    EXPECT_EQ(read_file(paths::server_file), started);
    EXPECT_THAT(restarts(), IsEmpty());
}

TEST_F(reconciliation_test, an_emptied_file_gets_every_line_that_a_start_writes) {
    start();
    commit_ok(timeout(77));
    die_and_start(1);
    for (const char* file : {paths::server_file, paths::client_file}) {
        const std::vector<std::string> settings = settings_of(file);
        write_file(file, "");
        EXPECT_GT(fake_platform::reconcile(false).remaining, 0) << file;
        expect_repaired({}, {});
        EXPECT_EQ(settings_of(file), settings);
    }
}

TEST_F(reconciliation_test, a_vrfs_file_without_host_keys) {
    start();
    std::string without;
    for (const std::string& line : file_lines(file_of("red"))) {
        without += line.starts_with("HostKey ") ? "" : line + "\n";
    }
    ASSERT_LT(without.size(), read_file(file_of("red")).size());
    write_file(file_of("red"), without);
    expect_repaired({of_file(file_of("red"), "differs in HostKey")}, {restart_of("red")});
}

TEST_F(reconciliation_test, the_clients_file) {
    start();
    replace_line(paths::client_file, "PubkeyAuthentication no", "PubkeyAuthentication yes");
    expect_repaired({of_file(paths::client_file, "differs in PubkeyAuthentication")}, {});
    std::filesystem::remove(paths::client_file);
    expect_repaired({of_file(paths::client_file, "No such file or directory")}, {});
}

TEST_F(reconciliation_test, ports_in_files_that_have_none) {
    start();
    for (const char* file : {paths::client_file, paths::server_file}) {
        write_file(file, read_file(file) + "Port 2222\nPort \t2223\nSubsystem netconf /bin/sh\n");
        expect_repaired({of_file(file, "differs in Port, Subsystem netconf")}, {});
        EXPECT_THAT(read_file(file), Not(HasSubstr("Port"))) << file;
    }
}

TEST_F(reconciliation_test, files_of_vrfs) {
    start();
    replace_line(file_of("red"), "UsePAM yes", "UsePAM no");
    std::filesystem::remove(file_of("blue"));
    expect_repaired(
        {of_file(file_of("red"), "differs in UsePAM"), of_file(file_of("blue"), "No such file or directory")},
        {restart_of("red"), restart_of("blue")});
}

TEST_F(reconciliation_test, the_default_file_and_a_file_of_a_vrf) {
    start();
    for (const std::string& file : {std::string(paths::server_file), file_of("red")}) {
        replace_line(file, "UsePAM yes", "UsePAM no");
    }
    expect_repaired({of_file(paths::server_file, "differs in UsePAM"), of_file(file_of("red"), "differs in UsePAM")},
                    {restart_of("red")});
}

TEST_F(reconciliation_test, ports_and_subsystem_of_a_vrf) {
    fake_platform::store(vrf_item("red", "vrf-netconf"));
    start();
    replace_line(file_of("red"), "Port 22\n", "Port 2222\n");
    replace_line(file_of("blue"), "Port 22\n", "Port 22\nSubsystem netconf /bin/sh\n");
    expect_repaired({of_file(file_of("red"), "differs in the VRF's own lines"),
                     of_file(file_of("blue"), "differs in the VRF's own lines")},
                    {restart_of("red"), restart_of("blue")});
    EXPECT_THAT(file_lines(file_of("red")), testing::IsSupersetOf({"Port 22", "Port 830"}));
}

TEST_F(reconciliation_test, units) {
    start();
    std::filesystem::remove(unit_of("red"));
    write_file("/etc/systemd/system/sshd_conf_blue.conf", "ARG1=netns\n");
    expect_repaired({{"unit red", "is missing or differs"}, {"unit blue", "is missing or differs"}}, {});
    EXPECT_TRUE(path_exists(unit_of("red")));
}

TEST_F(reconciliation_test, servers_that_are_not_running) {
    start();
    ASSERT_EQ(std::system("systemctl stop sshd_service_red"), 0);
    expect_repaired({{"server red", "is not running"}}, {restart_of("red")});
}

TEST_F(reconciliation_test, servers_that_were_not_started_as_configured) {
    start();
    fake_platform::set_server_process("red", {"was not started by its unit's own command", ""});
    stub_commands::set_hook("systemctl restart", "touch /restarted");
    const auto found = fake_platform::reconcile(false);
    EXPECT_THAT(found.differences, ElementsAre(difference{"server red", "was not started by its unit's own command"}));
    fake_platform::reconcile(true);
    EXPECT_THAT(restarts(), ElementsAre(restart_of("red")));
}

TEST_F(reconciliation_test, servers_that_were_started_with_another_file) {
    start();
    std::filesystem::copy_file(file_of("red"), "/started_red");
    std::filesystem::copy_file(file_of("blue"), "/started_blue");
    fake_platform::set_server_process("red", {"", "/started_red"});
    fake_platform::set_server_process("blue", {"", "/started_blue"});
    EXPECT_THAT(fake_platform::reconcile(false).differences, IsEmpty());
    replace_line("/started_red", "UsePAM yes", "UsePAM no");
    EXPECT_THAT(fake_platform::reconcile(false).differences,
                ElementsAre(difference{"server red", "was started with a file that differs in UsePAM"}));
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 0);
    EXPECT_THAT(restarts(), ElementsAre(restart_of("red")));
}

TEST_F(reconciliation_test, a_unit_that_was_changed_since_systemd_read_it) {
    start();
    std::filesystem::remove_all(stub_commands::units_directory);
    stub_commands::set_output(show_units,
                              "Id=sshd_service_red.service\nActiveState=active\nMainPID=0\nNeedDaemonReload=yes\n\n"
                              "Id=sshd_service_blue.service\nActiveState=active\nMainPID=0\nNeedDaemonReload=no\n");
    EXPECT_THAT(fake_platform::reconcile(false).differences,
                ElementsAre(difference{"unit red", "systemd has not read its present file"}));
    fake_platform::reconcile(true);
    EXPECT_THAT(stub_commands::log_of("systemctl daemon-reload"), testing::SizeIs(1));
}

TEST_F(reconciliation_test, a_server_without_its_namespace) {
    start();
    scratch_root::remove_namespace_file("vrf-red");
    auto found = fake_platform::reconcile(false);
    EXPECT_THAT(found.differences, ElementsAre(difference{"server red", "runs without its network namespace"}));
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 0);
    EXPECT_THAT(stops(), ElementsAre("systemctl stop sshd_service_red"));
    EXPECT_TRUE(path_exists(file_of("red")));
}

TEST_F(reconciliation_test, the_pam_file_and_the_banners) {
    fake_platform::set_configured_banner(3, "#Hello#");
    fake_platform::set_aaa_banner("#Welcome#");
    start();
    EXPECT_THAT(fake_platform::reconcile(false).differences, IsEmpty());
    std::filesystem::remove(paths::pam_file);
    write_file(paths::banner_file, "Hello, intruder\n");
    write_file(paths::aaa_banner_file, "Welc");
    expect_repaired({of_file(paths::pam_file, "is missing"), of_file(paths::banner_file, "is missing or differs"),
                     of_file(paths::aaa_banner_file, "is missing or differs")},
                    {});
    EXPECT_EQ(read_file(paths::banner_file), "Hello\n");
    EXPECT_EQ(read_file(paths::aaa_banner_file), "Welcome\n");
}

TEST_F(reconciliation_test, a_pam_file_of_the_administrators_own_is_replaced_only_on_request) {
    constexpr char own_text[] = "auth required pam_deny.so\n";
    start();
    write_file(paths::pam_file, own_text);
    EXPECT_THAT(fake_platform::reconcile(false).differences,
                ElementsAre(of_file(paths::pam_file, "differs from the agent's")));
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 0);
    EXPECT_EQ(read_file(paths::pam_file), own_text);
    die_and_start();
    EXPECT_EQ(read_file(paths::pam_file), own_text);
    const auto nobody = [](const char*, const char*, void*) {};
    EXPECT_EQ(reconcile(2, nobody, nullptr, nullptr), 0);
    EXPECT_THAT(fake_platform::reconcile(false).differences, IsEmpty());
}

TEST_F(reconciliation_test, banners_that_were_deleted_while_the_agent_was_away) {
    fake_platform::set_configured_banner(3, "#Hello#");
    fake_platform::set_aaa_banner("#Welcome#");
    start();
    EXPECT_EQ(read_file(paths::aaa_banner_file), "Welcome\n");
    fake_platform::set_configured_banner(3, std::nullopt);
    fake_platform::set_aaa_banner(std::nullopt);
    EXPECT_THAT(fake_platform::reconcile(false).differences,
                testing::IsSupersetOf(
                    {of_file(paths::banner_file, "has a text, but no banner is configured"),
                     of_file(paths::aaa_banner_file, "has the text of an AAA banner that is no longer configured")}));
    die_and_start();
    EXPECT_FALSE(path_exists(paths::aaa_banner_file));
    EXPECT_FALSE(path_exists(paths::aaa_banner_record));
    EXPECT_EQ(read_file(paths::banner_file), "");
    EXPECT_THAT(fake_platform::reconcile(false).differences, IsEmpty());
}

TEST_F(reconciliation_test, a_message_of_the_day_of_the_machines_own) {
    write_file(paths::aaa_banner_file, "Welcome to this machine\n");
    start();
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 0);
    EXPECT_EQ(read_file(paths::aaa_banner_file), "Welcome to this machine\n");
}

// --- Failures --------------------------------------------------------------------------------------------------------

TEST_F(reconciliation_test, a_full_disk_is_reported_with_the_commit_and_repaired_later) {
    start();
    scratch_root::set_read_only(paths::configuration_directory, true);
    const auto result = fake_platform::commit(timeout(77));
    EXPECT_EQ(result.status, PLATFORM_OK);
    EXPECT_THAT(result.not_in_force, ElementsAre(fake_platform::unenforced{"file " + std::string(paths::server_file),
                                                                           "Read-only file system"}));
    EXPECT_GT(fake_platform::reconcile(true).remaining, 0);
    scratch_root::set_read_only(paths::configuration_directory, false);
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 0);
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
    for (const std::string& file : {std::string(paths::server_file), file_of("red"), file_of("blue")}) {
        EXPECT_THAT(file_lines(file), Contains("LoginGraceTime 77")) << file;
    }
    EXPECT_THAT(restarts(), UnorderedElementsAre(restart_of("red"), restart_of("blue")));
}

TEST_F(reconciliation_test, a_deletion_on_a_full_disk_is_carried_out_later) {
    start();
    scratch_root::set_read_only(paths::configuration_directory, true);
    const auto result = fake_platform::commit(fake_platform::remove(vrf_item("red").path));
    EXPECT_THAT(result.not_in_force,
                Contains(fake_platform::unenforced{"file " + file_of("red"), "Read-only file system"}));
    EXPECT_THAT(stops(), IsEmpty());
    const fake_platform::difference left = {"server red", "still provides a service that is no longer configured"};
    EXPECT_THAT(fake_platform::reconcile(false).differences, Contains(left));
    EXPECT_GT(fake_platform::reconcile(true).remaining, 0);
    scratch_root::set_read_only(paths::configuration_directory, false);
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 0);
    EXPECT_THAT(stops(), ElementsAre("systemctl stop sshd_service_red"));
    EXPECT_FALSE(path_exists(file_of("red")));
    EXPECT_EQ(find_vrf_node("red"), nullptr);
    EXPECT_THAT(fake_platform::reconcile(false).differences, testing::Not(Contains(left)));
}

TEST_F(reconciliation_test, an_item_that_is_configured_again_before_its_deletion_is_carried_out_counts_once) {
    start();
    scratch_root::set_read_only(paths::configuration_directory, true);
    fake_platform::commit(fake_platform::remove(vrf_item("red").path));
    scratch_root::set_read_only(paths::configuration_directory, false);
    fake_platform::commit(vrf_item("red"));
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 0);
    ASSERT_NE(find_vrf_node("red"), nullptr);
    EXPECT_EQ(find_vrf_node("red")->reference_count, 1);
    fake_platform::commit(fake_platform::remove(vrf_item("red").path));
    EXPECT_EQ(find_vrf_node("red"), nullptr);
}

/// FIPS mode stays on in the files after a repair, although its first write failed.
TEST_F(reconciliation_test, fips_mode_on_a_full_disk_is_switched_on_later) {
    start();
    scratch_root::set_read_only(paths::configuration_directory, true);
    const auto result = fake_platform::commit(fake_platform::set_number("/cfg/gl/crypto/fipsmode/value", 1));
    EXPECT_THAT(result.not_in_force, testing::Not(IsEmpty()));
    scratch_root::set_read_only(paths::configuration_directory, false);
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 0);
    for (const std::string& file : {std::string(paths::server_file), file_of("red"), file_of("blue")}) {
        EXPECT_THAT(file_lines(file), Contains("NorvoSSHFipsMode yes")) << file;
    }
    EXPECT_EQ(value(paths::client_file, "HostKeyAlgorithms").find("ssh-ed25519"), std::string::npos);
}

TEST_F(reconciliation_test, a_client_file_that_cannot_be_written_is_reported_with_the_commit) {
    start();
    std::filesystem::create_directory(paths::temporary_file);
    const auto result = fake_platform::commit(fake_platform::set_number(client_case.tree + "dscp", 12));
    EXPECT_THAT(result.not_in_force,
                ElementsAre(fake_platform::unenforced{"file " + std::string(paths::client_file), "Is a directory"}));
}

TEST_F(reconciliation_test, a_start_on_a_full_disk_is_reported) {
    scratch_root::limit_space(paths::configuration_directory, 4096);
    ASSERT_EQ(start_agent(), START_UP_DONE);
    EXPECT_TRUE(fake_platform::is_not_in_force("file " + std::string(paths::server_file)));
}

TEST_F(reconciliation_test, a_server_that_cannot_be_restarted_is_still_reported) {
    start();
    ASSERT_EQ(std::system("systemctl stop sshd_service_red"), 0);
    stub_commands::fail("systemctl restart sshd_service_red", 1, 1);
    errno = 0;
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 1);
    EXPECT_TRUE(fake_platform::is_not_in_force("server red"));
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 0);
    EXPECT_FALSE(fake_platform::is_not_in_force("server red"));
}

// systemd may start a server later that the agent could not start.
TEST_F(reconciliation_test, a_server_that_runs_behind_a_port_left_blocked) {
    start();
    stub_commands::fail_unit("sshd_service_red");
    EXPECT_EQ(fake_platform::commit(timeout(45)).not_in_force.size(), 1u);
    EXPECT_TRUE(fake_platform::vrf_blocked("red"));
    find_vrf_node("red")->restart_due = 0;
    stub_commands::allow_unit("sshd_service_red");
    std::system("systemctl restart sshd_service_red");
    expect_repaired({{"server red", "runs, but its VRF was left blocked when it could not be started"}},
                    {restart_of("red")});
    EXPECT_FALSE(fake_platform::vrf_blocked("red"));
}

TEST_F(reconciliation_test, units_that_systemd_has_not_read) {
    start();
    scratch_root::add_namespace_file("vrf-green");
    stub_commands::fail("systemctl daemon-reload", 1, 2);
    const auto result = fake_platform::commit(vrf_item("green"));
    EXPECT_THAT(result.not_in_force, ElementsAre(fake_platform::unenforced{"units", "systemctl daemon-reload failed"}));
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 1);
    expect_repaired({{"units", "systemd has not read them since they were changed"}}, {});
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
}

TEST_F(reconciliation_test, states_that_cannot_be_read) {
    start();
    stub_commands::fail(show_units, 1);
    EXPECT_EQ(fake_platform::reconcile(false).remaining, -1);
    EXPECT_THAT(fake_platform::log_texts(), Contains(HasSubstr("Failed to read the states of the servers")));
    die_and_start();
    EXPECT_TRUE(fake_platform::is_not_in_force("servers"));
}

}  // namespace
