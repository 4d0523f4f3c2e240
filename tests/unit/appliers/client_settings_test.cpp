#include "appliers/client_settings.h"

#include "../algorithm_test.h"
#include "appliers/settings.h"

namespace {

using fake_platform::remove;
using fake_platform::set_number;
using fake_platform::set_text;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

class client_settings_test : public algorithm_test {
  protected:
    client_settings_test() { start(); }

    static std::string path(const std::string& item) { return client_case.tree + item; }
    static std::string line(const std::string& keyword) { return value(paths::client_file, keyword); }
    static void set(const std::string& item, uint32_t number) { commit_ok(set_number(path(item), number)); }
    static void unset(const std::string& item) { commit_ok(remove(path(item))); }
};

TEST_F(client_settings_test, no_setting_changes_the_servers_file) {
    const std::string before = read_file(paths::server_file);
    set("v2", 1);
    set("dscp", 10);
    set("rekey_time", 5);
    set("rekey_volume", 6);
    set("tcp_window_scale", 7);
    commit_ok(set_text(path("host_pubkey"), "/root/known"));
    EXPECT_EQ(read_file(paths::server_file), before);
}

TEST_F(client_settings_test, version_2_is_in_the_file_while_its_item_is_set) {
    set("v2", 1);
    EXPECT_EQ(line("Protocol"), "2");
    EXPECT_TRUE(fake_platform::debugged("Event:=3, Config:=ssh client v2"));
    unset("v2");
    EXPECT_EQ(line("Protocol"), "no line");
    EXPECT_EQ(client_config.parameters[CLIENT_PROTOCOL].current, nullptr);
}

TEST_F(client_settings_test, a_code_point_is_written_as_type_of_service) {
    set("dscp", 10);
    EXPECT_EQ(line("IPQoS"), "0x28");
    EXPECT_STREQ(client_config.parameters[CLIENT_IP_QOS].current, "0xa");
    EXPECT_TRUE(fake_platform::debugged("Setting DSCP value for client:0xa"));
    set("dscp", 0);
    EXPECT_EQ(line("IPQoS"), "0x0");
    set("dscp", 63);
    EXPECT_EQ(line("IPQoS"), "0xfc");
    unset("dscp");
    EXPECT_EQ(line("IPQoS"), "0x40");
}

TEST_F(client_settings_test, rekey_time_and_volume_share_one_line) {
    set("rekey_time", 30);
    EXPECT_EQ(line("RekeyLimit"), "1024M 30m");
    set("rekey_volume", 512);
    EXPECT_EQ(line("RekeyLimit"), "512M 30m");
    unset("rekey_time");
    EXPECT_EQ(line("RekeyLimit"), "512M 60m");
    unset("rekey_volume");
    EXPECT_EQ(line("RekeyLimit"), "1024M 60m");
    EXPECT_TRUE(fake_platform::debugged("RekeyOld:=512M 60m"));
}

TEST_F(client_settings_test, rekey_limits_of_server_and_client_are_separate) {
    commit_ok(set_number("/cfg/gl/crypto/ssh/server/cmn/rekey_volume", 7));
    set("rekey_time", 9);
    EXPECT_EQ(line("RekeyLimit"), "1024M 9m");
    EXPECT_EQ(value(paths::server_file, "RekeyLimit"), "7M 60m");
}

TEST_F(client_settings_test, the_window_scale_is_kept_in_memory_only) {
    const std::string before = both_files();
    set("tcp_window_scale", 14);
    EXPECT_STREQ(client_config.parameters[CLIENT_WINDOW_SCALE].current, "14");
    unset("tcp_window_scale");
    EXPECT_EQ(client_config.parameters[CLIENT_WINDOW_SCALE].current, nullptr);
    EXPECT_EQ(both_files(), before);
}

TEST_F(client_settings_test, with_a_known_hosts_file_the_client_asks_about_unknown_hosts) {
    commit_ok(set_text(path("host_pubkey"), "/root/known_hosts"));
    EXPECT_EQ(line("UserKnownHostsFile"), "/root/known_hosts");
    EXPECT_EQ(line("StrictHostKeyChecking"), "ask");
    unset("host_pubkey");
    EXPECT_EQ(line("UserKnownHostsFile"), "/dev/null");
    EXPECT_EQ(line("StrictHostKeyChecking"), "no");
}

TEST_F(client_settings_test, the_name_of_the_known_hosts_file_is_truncated_to_its_buffer) {
    const std::string longest = "/" + std::string(199, 'h');
    commit_ok(set_text(path("host_pubkey"), longest));
    EXPECT_EQ(line("UserKnownHostsFile"), longest);
    commit_ok(set_text(path("host_pubkey"), longest + "X"));
    EXPECT_EQ(line("UserKnownHostsFile"), longest);
}

TEST_F(client_settings_test, the_largest_numbers_fit_their_buffers) {
    set("rekey_time", 0x7fffffff);
    set("rekey_volume", 0x7fffffff);
    EXPECT_EQ(line("RekeyLimit"), "2147483647M 2147483647m");
    set("dscp", UINT32_MAX);
    EXPECT_EQ(line("IPQoS"), "0xfffffffc");
    set("tcp_window_scale", UINT32_MAX);
    EXPECT_STREQ(client_config.parameters[CLIENT_WINDOW_SCALE].current, "-1");
}

TEST_F(client_settings_test, an_event_that_neither_sets_nor_deletes_changes_nothing) {
    const std::string before = both_files();
    const datastore_change change = {8, nullptr, nullptr, 0, 0};
    for (const auto applier :
         {ssh_client_apply_v2, ssh_client_apply_dscp, ssh_client_apply_tcp_window_scale, ssh_client_apply_rekey_time,
          ssh_client_apply_rekey_volume, ssh_client_apply_known_hosts}) {
        EXPECT_EQ(applier(&change, nullptr), PLATFORM_OK);
    }
    EXPECT_EQ(both_files(), before);
}

TEST_F(client_settings_test, a_missing_file_is_recreated) {
    remove_path(paths::client_file);
    set("v2", 1);
    EXPECT_EQ(read_file(paths::client_file), "Protocol 2\n");
}

}  // namespace
