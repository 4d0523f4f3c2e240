/// Fixture of the VRF tests: a default server file, no VRF yet, a completed initial scan, and access lists and
/// telemetry that record their calls.
#ifndef UNIT_VRF_TEST_H
#define UNIT_VRF_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "../agent_test.h"
#include "command_trail.h"
#include "config_files/vrf_node.h"
#include "core/debug.h"
#include "scratch_root.h"
#include "vrf/node_registry.h"
#include "vrf/server_lifecycle.h"
#include "vrf/service_unit.h"
#include "vrf/vrf_appliers.h"

class vrf_test : public agent_test {
  protected:
    static constexpr char default_file[] = "UsePAM yes\n";

    vrf_test() {
        write_file(paths::server_file, default_file);
        std::filesystem::create_directories("/etc/systemd/system");
        agent_handles.respawn_count = 1;
        agent_handles.initial_scan_complete = 1;
        fill_upcalls();
        datastore_bind(paths::server_tree, &agent_handles.server_binding);
        fake_platform::preset_debug_flag(debug_cfg_agent, true);
        forget();
        command_trail::begin();
    }

    ~vrf_test() override {
        command_trail::end();
        forget_vrf_nodes();
    }

    /// Clears what was recorded so far.
    static void forget() {
        fake_platform::clear_calls();
        fake_platform::clear_reports();
        stub_commands::clear_log();
    }

    /// The calls so far, in order: the platform's operations, shell commands ("$ ..."), access lists, telemetry.
    static std::vector<std::string> trail() { return fake_platform::calls(); }

    static std::string unit_file(const std::string& vrf) {
        return "/etc/systemd/system/sshd_service_" + vrf + ".service";
    }
    static std::string environment_file(const std::string& vrf) {
        return "/etc/systemd/system/sshd_conf_" + vrf + ".conf";
    }
    static std::string server_file(const std::string& vrf) { return "/var/opt/norvo/norvossh/sshd_config_" + vrf; }

    /// A VRF with its namespace, whether or not a server is configured there.
    static void add_namespace(const std::string& vrf) { scratch_root::add_namespace_file("vrf-" + vrf); }
    static void remove_namespace(const std::string& vrf) { scratch_root::remove_namespace_file("vrf-" + vrf); }

    /// Makes a call of the access-list functions ("ssh_configure_v4acl(red, 0)") fail.
    static void fail_call(const std::string& call) { failing.insert(call); }
    static void clear_failed_calls() { failing.clear(); }

    static std::string log_of_details(const std::string& text) { return "ERR_DETAILS: " + text; }

    /// Whether the error trace has an entry with these arguments.
    static bool traced(const std::vector<std::string>& arguments) {
        for (const fake_platform::trace_line& line : fake_platform::trace_lines()) {
            if (line.arguments == arguments) {
                return true;
            }
        }
        return false;
    }

  private:
    static inline std::set<std::string> failing;

    static int record(const std::string& call) {
        fake_platform::record_call(call);
        return failing.count(call) != 0 ? -1 : 0;
    }

    static std::string with_kind(const char* function, const char* vrf_name, uint32_t kind) {
        return std::string(function) + "(" + vrf_name + ", " + std::to_string(kind) + ")";
    }

    static void fill_upcalls() {
        agent_upcalls.ssh_process_restart = ssh_process_restart;
        agent_upcalls.delete_vrf_node = delete_vrf_node;
        agent_upcalls.create_nft_table = [](const char* vrf_name) {
            return record(std::string("create_nft_table(") + vrf_name + ")");
        };
        agent_upcalls.ssh_flush_nft_table = [](const char* vrf_name, uint32_t kind) {
            return record(with_kind("ssh_flush_nft_table", vrf_name, kind));
        };
        agent_upcalls.ssh_configure_v4acl = [](vrf_node* node, uint32_t kind) {
            return record(with_kind("ssh_configure_v4acl", node->name, kind));
        };
        agent_upcalls.ssh_configure_v6acl = [](vrf_node* node, uint32_t kind) {
            return record(with_kind("ssh_configure_v6acl", node->name, kind));
        };
        agent_upcalls.ssh_remove_v4acl_config = [](vrf_node* node, uint32_t kind) {
            record(with_kind("ssh_remove_v4acl_config", node->name, kind));
        };
        agent_upcalls.ssh_remove_v6acl_config = [](vrf_node* node, uint32_t kind) {
            record(with_kind("ssh_remove_v6acl_config", node->name, kind));
        };
        agent_upcalls.reload_acls = [](vrf_node* node) { record(std::string("reload_acls(") + node->name + ")"); };
        agent_upcalls.release_unused_acls = [] { record("release_unused_acls()"); };
        agent_upcalls.ocssh_telemetry_publish = [] { record("telemetry"); };
    }
};

#endif
