/// An agent whose comparison with the machine is tested.
#ifndef UNIT_RECONCILE_RECONCILIATION_SUPPORT_H
#define UNIT_RECONCILE_RECONCILIATION_SUPPORT_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "../algorithm_test.h"
#include "scratch_root.h"

/// A started agent with servers in the VRFs red and blue.
class reconciliation_test : public algorithm_test {
  protected:
    reconciliation_test() {
        std::filesystem::create_directories("/etc/systemd/system");
        for (const char* vrf : {"default", "red", "blue"}) {
            scratch_root::add_namespace_file(std::string("vrf-") + vrf);
        }
        for (const char* vrf : {"red", "blue"}) {
            fake_platform::store(vrf_item(vrf));
        }
    }

    static fake_platform::change vrf_item(const std::string& vrf, const std::string& service = "vrf") {
        return fake_platform::set_tuple("/cfg/gl/crypto/ssh/server/sshd/" + service + "/" + vrf, "%d%S%S",
                                        {std::nullopt, std::nullopt, std::nullopt});
    }
    static fake_platform::change timeout(uint32_t seconds) {
        return fake_platform::set_number(server_case.tree + "timeout", seconds);
    }

    static std::string file_of(const std::string& vrf) { return paths::vrf_server_file_prefix + vrf; }
    static std::string unit_of(const std::string& vrf) {
        return "/etc/systemd/system/sshd_service_" + vrf + ".service";
    }
    static fake_platform::difference of_file(const std::string& path, const std::string& text) {
        return {"file " + path, text};
    }

    static void start() {
        algorithm_test::start();
        stub_commands::clear_log();
    }

    /// The agent is killed and started again; the servers keep running.
    static void die_and_start(uint32_t respawn_count = 2) {
        forget_vrf_nodes();
        agent_handles = {};
        fake_platform::set_respawn_count(respawn_count);
        stub_commands::clear_log();
        fake_platform::clear_reports();
        stub_commands::set_output("systemctl is-active", "active\n");
        ASSERT_EQ(start_agent(), START_UP_DONE);
    }

    static std::vector<std::string> restarts() { return stub_commands::log_of("systemctl restart"); }
    static std::vector<std::string> stops() { return stub_commands::log_of("systemctl stop"); }

    static void replace_line(const std::string& path, const std::string& from, const std::string& to) {
        std::string text = read_file(path);
        const size_t at = text.find(from);
        ASSERT_NE(at, std::string::npos) << path << " lacks " << from;
        write_file(path, text.replace(at, from.size(), to));
    }

    /// The comparison finds `differences`; a repair then removes all of them and restarts the servers in `restarted`.
    static void expect_repaired(const std::vector<fake_platform::difference>& differences,
                                const std::vector<std::string>& restarted) {
        auto dry = fake_platform::reconcile(false);
        EXPECT_THAT(dry.differences, testing::IsSupersetOf(differences));
        EXPECT_EQ(dry.remaining, static_cast<int>(dry.differences.size()));
        stub_commands::clear_log();
        EXPECT_EQ(fake_platform::reconcile(true).remaining, 0);
        EXPECT_THAT(restarts(), testing::UnorderedElementsAreArray(restarted));
        EXPECT_THAT(fake_platform::reconcile(false).differences, testing::IsEmpty());
    }
};

inline std::string restart_of(const std::string& vrf) {
    return "systemctl restart sshd_service_" + vrf;
}

#endif
