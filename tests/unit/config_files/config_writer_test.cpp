#include "config_files/config_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "../agent_test.h"
#include "config_files/vrf_node.h"
#include "core/debug.h"
#include "core/text.h"
#include "core/trace.h"
#include "scratch_root.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

std::vector<std::string> restarts;

int note_restart(uint32_t start, const char* vrf_name) {
    restarts.push_back((start != 0 ? "restart " : "stop ") + std::string(vrf_name));
    return -1;  // The writer ignores a failed restart.
}

void unlink_node(vrf_node* node) {
    for (vrf_node** link = &server_config.nodes; *link != nullptr; link = &(*link)->next) {
        if (*link == node) {
            *link = node->next;
            restarts.push_back("delete " + std::string(node->name));
            // A walk that still reads a freed node would find this.
            *node = vrf_node{};
            return;
        }
    }
}

class config_writer_test : public agent_test {
  protected:
    config_writer_test() {
        restarts.clear();
        EXPECT_EQ(datastore_bind(paths::server_tree, &agent_handles.server_binding), PLATFORM_OK);
        agent_upcalls.ssh_process_restart = note_restart;
        agent_upcalls.delete_vrf_node = unlink_node;
        write_file(paths::server_file, "UsePAM no\nPort 22\n");
    }

    ~config_writer_test() override { server_config.nodes = nullptr; }

    /// Adds a VRF at the head, with a file of its own if `content` is not null.
    vrf_node& add_vrf(const char* name, const char* content, bool with_namespace = true) {
        vrf_node& node = nodes_[count_++];
        copy_text(node.name, sizeof node.name, name);
        node.reference_count = 1;
        node.next = server_config.nodes;
        server_config.nodes = &node;
        if (content != nullptr) {
            write_file(vrf_file(name), content);
        }
        if (with_namespace) {
            scratch_root::add_namespace_file("vrf-" + std::string(name));
        } else {
            scratch_root::remove_namespace_file("vrf-" + std::string(name));
        }
        return node;
    }

    static std::string vrf_file(const std::string& name) { return paths::vrf_server_file_prefix + name; }

  private:
    vrf_node nodes_[4] = {};
    size_t count_ = 0;
};

// --- The default file ------------------------------------------------------------------------------------------------

TEST_F(config_writer_test, a_set_event_writes_the_line) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), 0);
    EXPECT_EQ(read_file(paths::server_file), "UsePAM yes\nPort 22\n");
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("update_config_files_restart, event:=3, code:=UsePAM, val:=yes, allvrf:=1"));
}

TEST_F(config_writer_test, every_event_without_the_delete_bit_writes_the_line) {
    for (const uint32_t event : {0u, 1u, 2u, 3u}) {
        write_file(paths::server_file, "");
        EXPECT_EQ(update_config_files_restart(event, "UsePAM", "yes", 0), 0);
        EXPECT_EQ(read_file(paths::server_file), "UsePAM yes\n") << event;
    }
}

TEST_F(config_writer_test, every_event_with_the_delete_bit_removes_the_line) {
    for (const uint32_t event : {4u, 5u, 7u}) {
        write_file(paths::server_file, "UsePAM no\nPort 22\n");
        EXPECT_EQ(update_config_files_restart(event, "UsePAM", nullptr, 0), 0);
        EXPECT_EQ(read_file(paths::server_file), "Port 22\n") << event;
    }
}

TEST_F(config_writer_test, deleting_a_port_needs_the_port) {
    write_file(paths::server_file, "Port 22\nPort 830\n");
    EXPECT_EQ(update_config_files_restart(event_delete_value, "Port", "830", 0), 0);
    EXPECT_EQ(read_file(paths::server_file), "Port 22\n");
}

TEST_F(config_writer_test, deleting_any_other_keyword_ignores_the_value) {
    for (const char* value : {"something", "some\nthing"}) {
        write_file(paths::server_file, "UsePAM no\nPort 22\n");
        EXPECT_EQ(update_config_files_restart(event_delete_value, "UsePAM", value, 0), 0);
        EXPECT_EQ(read_file(paths::server_file), "Port 22\n");
    }
}

TEST_F(config_writer_test, a_missing_value_is_printed_as_null) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    update_config_files_restart(event_delete_value, "UsePAM", nullptr, 0);
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("update_config_files_restart, event:=4, code:=UsePAM, val:=NULL, allvrf:=0"));
}

TEST_F(config_writer_test, setting_no_value_fails_and_leaves_the_file) {
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", nullptr, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(read_file(paths::server_file), "UsePAM no\nPort 22\n");
}

TEST_F(config_writer_test, a_new_line_is_truncated_to_4096_characters) {
    const std::string value(5000, 'v');
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", value.c_str(), 0), 0);
    EXPECT_EQ(read_file(paths::server_file), "UsePAM " + value.substr(0, 4096 - 7) + "\nPort 22\n");
}

TEST_F(config_writer_test, a_missing_default_file_is_made_from_the_table) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    std::filesystem::remove_all(paths::configuration_directory);
    server_config.parameters[SERVER_MAX_AUTH_TRIES].current = "5";
    add_vrf("red", "MaxAuthTries 20\n");
    std::filesystem::remove(paths::server_file);
    EXPECT_EQ(update_config_files_restart(event_set_value, "MaxAuthTries", "5", 1), 0);
    EXPECT_THAT(fake_platform::debug_texts(), Contains("default config file not present, will be recreating"));
    EXPECT_THAT(read_file(paths::server_file), testing::HasSubstr("MaxAuthTries 5\n"));
    EXPECT_THAT(read_file(paths::server_file),
                testing::HasSubstr("HostKey  /pkg/ecdsa-sha2-nistp256,/pkg/ecdsa-sha2-nistp384,"));
    EXPECT_EQ(read_file(vrf_file("red")), "MaxAuthTries 5\n");
    EXPECT_THAT(restarts, ElementsAre("restart red"));
}

TEST_F(config_writer_test, any_other_failure_is_returned) {
    std::filesystem::remove(paths::server_file);
    std::filesystem::create_directories(paths::server_file);
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), -1);
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(config_writer_test, a_recreation_that_fails_is_returned) {
    std::filesystem::remove_all("/var/opt/norvo");
    write_file("/var/opt/norvo", "in the way");
    // The missing directory gives ENOTDIR, which does not count as a missing file.
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), -1);
    std::filesystem::remove("/var/opt/norvo");
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), -1);
    EXPECT_EQ(errno, ENOENT);
}

// --- The VRFs --------------------------------------------------------------------------------------------------------

TEST_F(config_writer_test, every_vrf_gets_the_line_and_a_restart_newest_first) {
    add_vrf("red", "UsePAM no\n");
    add_vrf("blue", "UsePAM no\n");
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), 0);
    EXPECT_EQ(read_file(vrf_file("red")), "UsePAM yes\n");
    EXPECT_EQ(read_file(vrf_file("blue")), "UsePAM yes\n");
    EXPECT_THAT(restarts, ElementsAre("restart blue", "restart red"));
}

TEST_F(config_writer_test, without_allvrf_only_the_default_file_changes) {
    add_vrf("red", "UsePAM no\n");
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 0), 0);
    EXPECT_EQ(read_file(paths::server_file), "UsePAM yes\nPort 22\n");
    EXPECT_EQ(read_file(vrf_file("red")), "UsePAM no\n");
    EXPECT_THAT(restarts, ElementsAre());
}

TEST_F(config_writer_test, if_the_default_file_is_unchanged_so_are_the_others) {
    add_vrf("red", "UsePAM other\n");
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "no", 1), 0);
    EXPECT_EQ(read_file(vrf_file("red")), "UsePAM other\n");
    EXPECT_THAT(restarts, ElementsAre());
}

TEST_F(config_writer_test, a_server_is_restarted_only_in_an_existing_namespace) {
    add_vrf("red", "UsePAM no\n");
    add_vrf("blue", "UsePAM no\n", false);
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), 0);
    EXPECT_EQ(read_file(vrf_file("blue")), "UsePAM yes\n");
    EXPECT_THAT(restarts, ElementsAre("restart red"));
}

TEST_F(config_writer_test, the_walk_stops_at_the_first_file_that_did_not_change) {
    add_vrf("red", "UsePAM no\n");
    add_vrf("blue", "UsePAM yes\n");
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), 0);
    EXPECT_EQ(read_file(vrf_file("red")), "UsePAM no\n");
    EXPECT_THAT(restarts, ElementsAre());
}

// The flag is not reset: after one changed file the walk continues past a file that did not change.
TEST_F(config_writer_test, a_later_unchanged_file_does_not_stop_the_walk) {
    add_vrf("red", "UsePAM no\n");
    add_vrf("green", "UsePAM yes\n");
    add_vrf("blue", "UsePAM no\n");
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), 0);
    EXPECT_EQ(read_file(vrf_file("red")), "UsePAM yes\n");
    EXPECT_THAT(restarts, ElementsAre("restart blue", "restart green", "restart red"));
}

TEST_F(config_writer_test, unused_nodes_are_removed_on_the_way) {
    add_vrf("red", "UsePAM no\n");
    add_vrf("green", "UsePAM no\n").reference_count = 0;
    add_vrf("blue", "UsePAM no\n");
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), 0);
    EXPECT_FALSE(path_exists(vrf_file("green")));
    EXPECT_EQ(find_vrf_node("green"), nullptr);
    EXPECT_EQ(read_file(vrf_file("red")), "UsePAM yes\n");
    EXPECT_THAT(restarts, ElementsAre("restart blue", "stop green", "delete green", "restart red"));
}

TEST_F(config_writer_test, a_walk_over_unused_nodes_only_succeeds) {
    add_vrf("red", "UsePAM no\n").reference_count = 0;
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), 0);
    EXPECT_EQ(server_config.nodes, nullptr);
    EXPECT_THAT(restarts, ElementsAre("stop red", "delete red"));
}

TEST_F(config_writer_test, a_missing_vrf_file_is_recreated_and_the_walk_continues) {
    add_vrf("red", "UsePAM no\n");
    add_vrf("blue", nullptr);
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), 0);
    EXPECT_EQ(read_file(vrf_file("blue")), "UsePAM yes\nPort 22\n");
    EXPECT_EQ(read_file(vrf_file("red")), "UsePAM yes\n");
    EXPECT_THAT(restarts, ElementsAre("restart blue", "restart red"));
}

TEST_F(config_writer_test, a_missing_vrf_file_after_a_changed_one_is_recreated_and_its_server_restarted) {
    add_vrf("red", nullptr);
    add_vrf("blue", "UsePAM no\n");
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), 0);
    EXPECT_EQ(read_file(vrf_file("red")), "UsePAM yes\nPort 22\n");
    EXPECT_THAT(restarts, ElementsAre("restart blue", "restart red"));
}

TEST_F(config_writer_test, a_vrf_file_that_cannot_be_edited_ends_the_walk) {
    add_vrf("red", "UsePAM no\n");
    add_vrf("blue", nullptr);
    std::filesystem::create_directories(vrf_file("blue"));
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), -1);
    EXPECT_EQ(read_file(vrf_file("red")), "UsePAM no\n");
    EXPECT_THAT(restarts, ElementsAre());
}

TEST_F(config_writer_test, the_walk_works_without_the_restart_upcall) {
    agent_upcalls = upcalls{};
    add_vrf("red", "UsePAM no\n");
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), 0);
    EXPECT_EQ(read_file(vrf_file("red")), "UsePAM yes\n");
}

// Their restarts were not successful.
TEST_F(config_writer_test, after_a_walk_the_due_restarts_are_recorded_by_name) {
    add_vrf("red", "UsePAM no\n");
    add_vrf("blue", "UsePAM no\n");
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), 0);
    EXPECT_THAT(file_lines(paths::restart_record), ElementsAre(testing::_, "blue", "red"));
}

// --- Several lines for one keyword -----------------------------------------------------------------------------------

TEST_F(config_writer_test, a_list_becomes_one_line_for_each_value_in_every_file) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    add_vrf("red", "HostKey /pkg/dsa\n");
    add_vrf("blue", "");
    EXPECT_EQ(update_config_files_multiple_restart(event_set_value, "HostKey ", "/pkg/rsa,/pkg/ed25519", 1), 0);
    constexpr char lines[] = "HostKey   /pkg/rsa\nHostKey  /pkg/ed25519\n";
    EXPECT_EQ(read_file(paths::server_file), std::string("UsePAM no\nPort 22\n") + lines);
    EXPECT_EQ(read_file(vrf_file("red")), lines);
    EXPECT_EQ(read_file(vrf_file("blue")), lines);
    EXPECT_THAT(restarts, ElementsAre("restart blue", "restart red"));
    EXPECT_THAT(
        fake_platform::debug_texts(),
        Contains("update configfile multiple, event:=3, code:=HostKey , val:=/pkg/rsa,/pkg/ed25519, allvrf:=1"));
    EXPECT_THAT(fake_platform::debug_texts(), Not(Contains(testing::HasSubstr("update_config_files_restart"))));
}

TEST_F(config_writer_test, an_unchanged_list_leaves_the_vrfs_alone) {
    add_vrf("red", "");
    write_file(paths::server_file, "HostKey /pkg/rsa\n");
    EXPECT_EQ(update_config_files_multiple_restart(event_set_value, "HostKey ", "/pkg/rsa", 1), 0);
    EXPECT_EQ(read_file(vrf_file("red")), "");
    EXPECT_THAT(restarts, ElementsAre());
}

TEST_F(config_writer_test, without_allvrf_a_list_changes_only_in_the_default_file) {
    add_vrf("red", "");
    EXPECT_EQ(update_config_files_multiple_restart(event_set_value, "HostKey ", "/pkg/rsa", 0), 0);
    EXPECT_EQ(read_file(vrf_file("red")), "");
    EXPECT_THAT(restarts, ElementsAre());
}

TEST_F(config_writer_test, removing_a_list_deletes_all_its_lines) {
    write_file(paths::server_file, "HostKey /a\nHostKeyAlgorithms x\nHostKey /b\n");
    EXPECT_EQ(update_config_files_multiple_restart(event_delete_value, "HostKey ", nullptr, 1), 0);
    EXPECT_EQ(read_file(paths::server_file), "HostKeyAlgorithms x\n");
}

TEST_F(config_writer_test, the_list_writer_walks_like_the_single_line_writer) {
    add_vrf("red", "UsePAM no\n");
    add_vrf("green", "HostKey /pkg/rsa\n");
    add_vrf("blue", "").reference_count = 0;
    EXPECT_EQ(update_config_files_multiple_restart(event_set_value, "HostKey ", "/pkg/rsa", 1), 0);
    EXPECT_EQ(read_file(vrf_file("red")), "UsePAM no\n");
    EXPECT_THAT(restarts, ElementsAre("stop blue", "delete blue"));
}

// --- One VRF's file --------------------------------------------------------------------------------------------------

TEST_F(config_writer_test, only_one_vrfs_file_is_changed) {
    add_vrf("red", "Port 22\n");
    uint32_t change = 0;
    EXPECT_EQ(update_vrf_config_file(event_set_value, "red", "Port", "830", &change), 0);
    EXPECT_EQ(change, 1u);
    EXPECT_EQ(read_file(vrf_file("red")), "Port 22\nPort 830\n");
    EXPECT_EQ(update_vrf_config_file(event_delete_value, "red", "Port", "22", &change), 0);
    EXPECT_EQ(read_file(vrf_file("red")), "Port 830\n");
    EXPECT_EQ(read_file(paths::server_file), "UsePAM no\nPort 22\n");
    EXPECT_THAT(restarts, ElementsAre());
}

TEST_F(config_writer_test, a_missing_file_of_one_vrf_is_recreated) {
    add_vrf("red", nullptr);
    uint32_t change = 0;
    EXPECT_EQ(update_vrf_config_file(event_delete_value, "red", "Port", "830", &change), 0);
    EXPECT_EQ(change, 1u);
    EXPECT_EQ(read_file(vrf_file("red")), "UsePAM no\nPort 22\n");
}

TEST_F(config_writer_test, a_vrfs_file_is_deleted) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    trace_initialise();
    write_file(vrf_file("red"), "");
    delete_vrf_config_file("red");
    EXPECT_FALSE(path_exists(vrf_file("red")));
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("delete_vrf_config_file, vrfname:=red"));
    EXPECT_THAT(fake_platform::trace_lines_of("ssh/cfg-agent/error"), testing::SizeIs(0));
    delete_vrf_config_file("red");
    EXPECT_THAT(fake_platform::trace_lines_of("ssh/cfg-agent/error"), testing::SizeIs(1));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
}

// --- The client's file -----------------------------------------------------------------------------------------------

TEST_F(config_writer_test, a_missing_client_file_is_created) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    std::filesystem::remove_all(paths::configuration_directory);
    update_client_config_file(event_set_value, "MACs", "hmac-sha1");
    EXPECT_EQ(read_file(paths::client_file), "MACs hmac-sha1\n");
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("update_client_config_file, event:=3, code:=MACs, val:=hmac-sha1"));
}

TEST_F(config_writer_test, the_clients_lines_are_changed_and_removed_without_restarts) {
    add_vrf("red", "MACs x\n");
    write_file(paths::client_file, "MACs x\nCiphers y\n");
    update_client_config_file(event_set_value, "MACs", "hmac-sha1");
    EXPECT_EQ(read_file(paths::client_file), "MACs hmac-sha1\nCiphers y\n");
    update_client_config_file(event_delete_value, "MACs", "hmac-sha1");
    EXPECT_EQ(read_file(paths::client_file), "Ciphers y\n");
    EXPECT_EQ(read_file(vrf_file("red")), "MACs x\n");
    EXPECT_THAT(restarts, ElementsAre());
}

// In the client's file "Port" is never deleted by its value.
TEST_F(config_writer_test, the_client_passes_no_line_when_deleting) {
    write_file(paths::client_file, "Port 22\n");
    update_client_config_file(event_delete_value, "Port", "22");
    EXPECT_EQ(read_file(paths::client_file), "Port 22\n");
}

TEST_F(config_writer_test, a_client_file_that_cannot_be_created_is_given_up_silently) {
    std::filesystem::remove_all("/var/opt/norvo");
    write_file("/var/opt/norvo", "in the way");
    update_client_config_file(event_set_value, "MACs", "hmac-sha1");
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(fake_platform::unenforced{std::string("file ") + paths::client_file, "Not a directory"}));
    std::filesystem::remove("/var/opt/norvo");
}

TEST_F(config_writer_test, a_client_file_that_cannot_be_edited_is_reported) {
    write_file(paths::client_file, "MACs x\n");
    update_client_config_file(event_set_value, "MACs", "hmac-sha1");
    EXPECT_THAT(fake_platform::not_in_force(), ElementsAre());
    std::filesystem::create_directory(paths::temporary_file);
    update_client_config_file(event_set_value, "MACs", "x");
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(fake_platform::unenforced{std::string("file ") + paths::client_file, "Is a directory"}));
}

TEST_F(config_writer_test, a_client_setting_without_a_value_leaves_the_file_unchanged) {
    write_file(paths::client_file, "MACs x\n");
    update_client_config_file(event_set_value, "MACs", nullptr);
    EXPECT_EQ(read_file(paths::client_file), "MACs x\n");
}

}  // namespace
