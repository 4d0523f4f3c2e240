#include "config_files/file_recreation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "../account.h"
#include "../agent_test.h"
#include "call_faults.h"
#include "config_files/parameter_table.h"
#include "config_files/vrf_node.h"
#include "core/debug.h"
#include "core/text.h"
#include "scratch_root.h"
#include "syscall_faults.h"
#include "usage.h"

namespace {

using fake_platform::set_number;
using fake_platform::set_tuple;
using fake_platform::store;
using testing::Contains;
using testing::ElementsAre;

constexpr char vrf_file[] = "/var/opt/norvo/norvossh/sshd_config_red";
constexpr char default_vrf_file[] = "/var/opt/norvo/norvossh/sshd_config_default";

class file_recreation_test : public agent_test {
  protected:
    file_recreation_test() {
        EXPECT_EQ(datastore_bind(paths::server_tree, &agent_handles.server_binding), PLATFORM_OK);
    }

    void add_node(const char* name, const char* netconf_subsystem) {
        copy_text(node_.name, sizeof node_.name, name);
        node_.reference_count = 1;
        node_.lines[VRF_START_MARKER] = {nullptr, nullptr, "startconfig", 0};
        node_.lines[VRF_NETCONF_SUBSYSTEM] = {"", netconf_subsystem, "Subsystem netconf", 0};
        node_.lines[VRF_END_MARKER] = {nullptr, nullptr, "endconfig", 0};
        server_config.nodes = &node_;
    }

    static void store_ssh_vrf(const std::string& name) {
        store(set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/" + name, "%d%S%S", {1, std::nullopt, std::nullopt}));
    }

  private:
    vrf_node node_ = {};
};

constexpr char netconf_proxy[] = "/pkg/bin/netconf_sshd_proxy -i 0 -o 1";

// --- The recreated default file --------------------------------------------------------------------------------------

TEST_F(file_recreation_test, the_default_file_is_made_from_the_table) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    EXPECT_EQ(default_config_file_recreate(), 0);
    expect_golden("config_files/golden/recreated_sshd_config", read_file(paths::server_file));
    EXPECT_EQ(fake_platform::debug_texts().at(0), "default_config_file_recreate");
    EXPECT_FALSE(path_exists(paths::temporary_file));
    EXPECT_EQ(mode_of(paths::server_file), mode_t{0644});
}

TEST_F(file_recreation_test, values_set_before_are_in_the_recreated_file) {
    server_config.parameters[SERVER_PROTOCOL].current = "2";
    server_config.parameters[SERVER_LOG_LEVEL].current = "";
    server_config.parameters[SERVER_WINDOW_SCALE].current = "3";
    server_config.parameters[SERVER_PORT].current = "22";
    server_config.parameters[SERVER_MACS].current = nullptr;
    EXPECT_EQ(default_config_file_recreate(), 0);
    expect_golden("config_files/golden/recreated_sshd_config_settings", read_file(paths::server_file));
}

TEST_F(file_recreation_test, in_fips_mode_the_recreated_file_has_the_filtered_lists) {
    server_config.parameters[SERVER_FIPS_MODE].current = "yes";
    server_config.algorithms[SERVER_CIPHERS].second_current = "aes128-ctr,";
    EXPECT_EQ(default_config_file_recreate(), 0);
    EXPECT_THAT(file_lines(paths::server_file),
                testing::IsSupersetOf({std::string("NorvoSSHFipsMode yes"), std::string("Ciphers aes128-ctr,")}));
}

TEST_F(file_recreation_test, a_default_file_that_cannot_be_created) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    remove_path("/var/opt/norvo");
    EXPECT_EQ(default_config_file_recreate(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("default_config_file_recreate, Error:=No such file or directory(0x2), file create failed"));
}

/// Runs `recreate` and fails each of its file operations in turn: afterwards the file is missing or complete.
template <typename Recreate>
void expect_whole_or_missing(const char* path, const std::string& whole, Recreate recreate) {
    const auto undisturbed = syscall_faults::run({}, recreate);
    ASSERT_EQ(undisturbed.status, 0);
    for (const auto kind : {syscall_faults::fault::error, syscall_faults::fault::kill}) {
        for (const bool for_ever : {false, true}) {
            for (uint32_t call = 1; call <= undisturbed.calls; call++) {
                remove_path(path);
                const auto outcome = syscall_faults::run({kind, call, for_ever, ENOSPC}, recreate);
                SCOPED_TRACE(outcome.name + ", call " + std::to_string(call));
                const auto content = file_content(path);
                if (outcome.status == 0) {
                    EXPECT_EQ(content, whole);
                } else if (outcome.killed) {
                    EXPECT_TRUE(!content || content == whole);
                } else {
                    EXPECT_EQ(content, std::nullopt);
                }
            }
        }
    }
}

TEST_F(file_recreation_test, a_recreated_default_file_is_complete_or_missing) {
    EXPECT_EQ(default_config_file_recreate(), 0);
    const std::string whole = read_file(paths::server_file);
    expect_whole_or_missing(paths::server_file, whole, [] { return default_config_file_recreate() == 0 ? 0 : 1; });
}

TEST_F(file_recreation_test, a_default_file_that_can_be_created_but_not_opened) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    const auto undisturbed = syscall_faults::run({}, [] { return default_config_file_recreate(); });
    uint32_t opens = 0;
    for (uint32_t call = 1; call <= undisturbed.calls; call++) {
        const auto outcome = syscall_faults::run({syscall_faults::fault::error, call, false, EMFILE}, [] {
            const int result = default_config_file_recreate();
            return result == -1 && fake_platform::debugged(
                                       "default_config_file_recreate, Error:=Too many open files(0x18), file open "
                                       "failed")
                       ? 7
                       : 0;
        });
        opens += outcome.name.starts_with("open") ? 1 : 0;
        EXPECT_EQ(outcome.status == 7, outcome.name.starts_with("open") && opens == 2) << outcome.name;
    }
    EXPECT_EQ(opens, 2u);
}

// --- The recreated file of a VRF -------------------------------------------------------------------------------------

TEST_F(file_recreation_test, a_vrfs_file_needs_a_name) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    EXPECT_EQ(vrf_config_file_recreate(nullptr), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("vrf_config_file_recreate, Vrf-name:=NULL, Vrf config file recreate failed"));
    ASSERT_EQ(fake_platform::trace_lines().size(), 1u);
    EXPECT_STREQ(fake_platform::trace_lines()[0].point->name, "config_files.argument");
    EXPECT_THAT(fake_platform::trace_lines()[0].arguments, ElementsAre("vrf_config_file_recreate"));
}

TEST_F(file_recreation_test, a_vrfs_file_with_an_ssh_server) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    write_file(paths::server_file, "UsePAM yes\n");
    add_node("red", nullptr);
    store_ssh_vrf("red");
    EXPECT_EQ(vrf_config_file_recreate("red"), 0);
    EXPECT_EQ(read_file(vrf_file), "UsePAM yes\nPort 22\n");
    EXPECT_EQ(fake_platform::debug_texts().at(0), "vrf_config_file_recreate, vrfname:=red");
    EXPECT_FALSE(path_exists(paths::temporary_file));
}

TEST_F(file_recreation_test, a_vrfs_file_with_a_netconf_server_alone_has_no_ssh_port) {
    write_file(paths::server_file, "UsePAM yes\n");
    add_node("red", netconf_proxy);
    EXPECT_EQ(vrf_config_file_recreate("red"), 0);
    EXPECT_EQ(read_file(vrf_file), "UsePAM yes\nSubsystem netconf /pkg/bin/netconf_sshd_proxy -i 0 -o 1\nPort 830\n");
}

TEST_F(file_recreation_test, a_vrfs_file_with_both_servers) {
    write_file(paths::server_file, "UsePAM yes\n");
    add_node("red", netconf_proxy);
    store_ssh_vrf("red");
    server_config.parameters[SERVER_PORT].current = "2222";
    server_config.parameters[SERVER_NETCONF_PORT].current = "8830";
    EXPECT_EQ(vrf_config_file_recreate("red"), 0);
    EXPECT_EQ(read_file(vrf_file),
              "UsePAM yes\nSubsystem netconf /pkg/bin/netconf_sshd_proxy -i 0 -o 1\nPort 8830\nPort 2222\n");
}

TEST_F(file_recreation_test, without_an_ssh_port_no_port_line_is_written) {
    write_file(paths::server_file, "UsePAM yes\n");
    add_node("red", nullptr);
    store_ssh_vrf("red");
    server_config.parameters[SERVER_PORT].default_text = nullptr;
    EXPECT_EQ(vrf_config_file_recreate("red"), 0);
    EXPECT_EQ(read_file(vrf_file), "UsePAM yes\n");
}

TEST_F(file_recreation_test, a_vrf_without_a_node_gets_the_default_file) {
    write_file(paths::server_file, "UsePAM yes\n");
    store_ssh_vrf("red");
    EXPECT_EQ(vrf_config_file_recreate("red"), 0);
    EXPECT_EQ(read_file(vrf_file), "UsePAM yes\n");
    EXPECT_EQ(fake_platform::count_calls("datastore_item_get"), 0u);
}

TEST_F(file_recreation_test, the_default_vrf_also_gets_a_server_from_the_protocol_item) {
    write_file(paths::server_file, "UsePAM yes\n");
    add_node("default", nullptr);
    store(set_number("/cfg/gl/crypto/ssh/server/sshd/v2", 1));
    EXPECT_EQ(vrf_config_file_recreate("default"), 0);
    EXPECT_EQ(read_file(default_vrf_file), "UsePAM yes\nPort 22\n");
}

TEST_F(file_recreation_test, the_default_vrfs_own_item_is_sufficient) {
    write_file(paths::server_file, "UsePAM yes\n");
    add_node("default", nullptr);
    store_ssh_vrf("default");
    EXPECT_EQ(vrf_config_file_recreate("default"), 0);
    EXPECT_EQ(read_file(default_vrf_file), "UsePAM yes\nPort 22\n");
}

TEST_F(file_recreation_test, another_vrf_gets_no_server_from_the_protocol_item) {
    write_file(paths::server_file, "UsePAM yes\n");
    add_node("red", nullptr);
    store(set_number("/cfg/gl/crypto/ssh/server/sshd/v2", 1));
    EXPECT_EQ(vrf_config_file_recreate("red"), 0);
    EXPECT_EQ(read_file(vrf_file), "UsePAM yes\n");
}

TEST_F(file_recreation_test, a_vrfs_file_cannot_be_recreated_without_the_default_file) {
    EXPECT_EQ(vrf_config_file_recreate("red"), -1);
    EXPECT_FALSE(path_exists(vrf_file));
}

TEST_F(file_recreation_test, a_recreated_vrf_file_is_complete_or_missing) {
    write_file(paths::server_file, "UsePAM yes\n");
    add_node("red", netconf_proxy);
    store_ssh_vrf("red");
    EXPECT_EQ(vrf_config_file_recreate("red"), 0);
    const std::string whole = read_file(vrf_file);
    expect_whole_or_missing(vrf_file, whole, [] { return vrf_config_file_recreate("red") == 0 ? 0 : 1; });
}

TEST_F(file_recreation_test, a_vrf_file_that_cannot_be_opened_for_its_own_lines) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    write_file(paths::server_file, "UsePAM yes\n");
    const auto outcome = syscall_faults::run({syscall_faults::fault::error, 1, false, EMFILE}, [] {
        const int result = vrf_config_file_recreate("red");
        return result == -1 && fake_platform::debugged(
                                   "vrf_config_file_recreate, File:=/var/opt/norvo/norvossh/temp_sshd_config, "
                                   "Error:=Too many open files(0x18), file open failed")
                   ? 7
                   : 0;
    });
    EXPECT_EQ(outcome.status, 7) << outcome.name;
}

TEST_F(file_recreation_test, on_a_full_disk_a_missing_file_stays_missing) {
    scratch_root::limit_space(paths::configuration_directory, 4096);
    write_file(paths::server_file, "UsePAM yes\n");
    add_node("red", netconf_proxy);
    EXPECT_EQ(vrf_config_file_recreate("red"), -1);
    EXPECT_FALSE(path_exists(vrf_file));
    EXPECT_FALSE(path_exists(paths::temporary_file));
}

// --- Everything that is asked, run and reported -----------------------------------------------------------------------

TEST_F(file_recreation_test, every_failure_is_accounted_for) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    add_node("red", netconf_proxy);
    store_ssh_vrf("red");
    const struct {
        const char* file;
        int (*recreate)();
    } recreations[] = {{paths::server_file, default_config_file_recreate},
                       {vrf_file, [] { return vrf_config_file_recreate("red"); }}};
    const struct {
        const char* call;
        uint32_t number;
    } failing_calls[] = {{"", 0},       {"mkdir", 1},       {"fopen", 1},       {"fopen", 2},
                         {"fopen", 3},  {"stdio_write", 1}, {"stdio_write", 2}, {"fflush", 1},
                         {"fclose", 1}, {"fclose", 2},      {"rename", 1},      {"command", 1}};
    std::string text;
    account();
    for (const auto& [file, recreate] : recreations) {
        for (const auto& failing : failing_calls) {
            write_file(paths::server_file, "UsePAM yes\n");
            std::filesystem::remove(file);
            std::filesystem::remove(paths::temporary_file);
            const size_t descriptors = open_descriptors();
            if (failing.number > 0) {
                call_faults::fail_call(failing.call, EIO, call_faults::once, failing.number);
            }
            errno = 0;
            const int result = recreate();
            const std::string error = result != 0 ? strerror(errno) : "";
            call_faults::clear();
            text += std::string("== ") + file + " without " + failing.call + ' ' + std::to_string(failing.number) +
                    ": " + std::to_string(result) + ' ' + error + (path_exists(file) ? ", exists" : "") +
                    (path_exists(paths::temporary_file) ? ", temporary file" : "") + '\n' + account();
            EXPECT_EQ(open_descriptors(), descriptors) << failing.call;
        }
    }
    expect_golden("config_files/golden/recreation_account", text);
}

}  // namespace
