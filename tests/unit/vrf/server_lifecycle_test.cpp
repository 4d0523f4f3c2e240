#include "vrf/server_lifecycle.h"

#include <cerrno>

#include "call_faults.h"
#include "vrf_test.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

class server_lifecycle_test : public vrf_test {
  protected:
    server_lifecycle_test() {
        write_file(unit_file("red"), "[Unit]\n");
        node = create_vrf_node("red");
        forget();
    }

    vrf_node* node;
};

// --- Start and stop --------------------------------------------------------------------------------------------------

TEST_F(server_lifecycle_test, the_first_start_initialises_the_filter_and_restarts_while_blocked) {
    EXPECT_EQ(ssh_process_restart(1, "red"), 0);
    EXPECT_THAT(trail(), ElementsAre("mpp_vrf_nft_init(red)", "mpp_vrf_block(red)",
                                     "$ systemctl restart sshd_service_red", "mpp_vrf_unblock(red)"));
    EXPECT_EQ(node->nft_initialised, 1u);
    EXPECT_EQ(node->server_started, 0u);
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("ssh_process_restart, vrf:=red, will start sshd"));
    EXPECT_FALSE(fake_platform::vrf_blocked("red"));
}

TEST_F(server_lifecycle_test, later_starts_do_not_initialise_the_filter) {
    ssh_process_restart(1, "red");
    forget();
    EXPECT_EQ(ssh_process_restart(1, "red"), 0);
    EXPECT_THAT(trail(),
                ElementsAre("mpp_vrf_block(red)", "$ systemctl restart sshd_service_red", "mpp_vrf_unblock(red)"));
}

TEST_F(server_lifecycle_test, a_vrf_without_node_is_started_without_a_filter) {
    write_file(unit_file("green"), "[Unit]\n");
    EXPECT_EQ(ssh_process_restart(1, "green"), 0);
    EXPECT_THAT(trail(), ElementsAre("mpp_vrf_block(green)", "$ systemctl restart sshd_service_green",
                                     "mpp_vrf_unblock(green)"));
}

TEST_F(server_lifecycle_test, a_stop_always_unblocks) {
    EXPECT_EQ(ssh_process_restart(0, "red"), 0);
    EXPECT_THAT(trail(), ElementsAre("$ systemctl stop sshd_service_red", "mpp_vrf_unblock(red)"));
}

TEST_F(server_lifecycle_test, a_missing_name_is_refused) {
    EXPECT_EQ(ssh_process_restart(1, nullptr), -1);
    EXPECT_EQ(ssh_process_restart(0, nullptr), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("Vrf-name:=NULL, Restart of process failed", "Vrf-name:=NULL, Restart of process failed"));
    EXPECT_EQ(fake_platform::trace_lines().size(), 2u);
    EXPECT_THAT(trail(), ElementsAre());
}

TEST_F(server_lifecycle_test, without_a_unit_there_is_nothing_to_restart) {
    std::filesystem::remove(unit_file("red"));
    EXPECT_EQ(ssh_process_restart(1, "red"), 0);
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("ssh_process_restart, Service file doesn't exist for vrf:=red"));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
    EXPECT_TRUE(traced({"red"}));
}

TEST_F(server_lifecycle_test, a_started_server_without_unit_is_a_failure) {
    std::filesystem::remove(unit_file("red"));
    node->server_started = 1;
    EXPECT_EQ(ssh_process_restart(1, "red"), -1);
    EXPECT_EQ(ssh_process_restart(0, "red"), -1);
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_GENERAL: Service file doesn't exist", "ERR_GENERAL: Service file doesn't exist"));
}

TEST_F(server_lifecycle_test, without_unit_and_node_there_is_no_failure) {
    EXPECT_EQ(ssh_process_restart(1, "green"), 0);
    EXPECT_THAT(trail(), ElementsAre());
}

// The VRF stays blocked because no server is running.
TEST_F(server_lifecycle_test, a_failed_start_leaves_the_vrf_blocked) {
    stub_commands::fail("systemctl restart", 1);
    errno = EAGAIN;
    EXPECT_EQ(ssh_process_restart(1, "red"), -1);
    EXPECT_THAT(trail(),
                ElementsAre("mpp_vrf_nft_init(red)", "mpp_vrf_block(red)", "$ systemctl restart sshd_service_red",
                            "enforcement_failed(server red, systemctl restart sshd_service_red failed)"));
    EXPECT_TRUE(fake_platform::vrf_blocked("red"));
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Vrf-name:=red, Error:=Resource temporarily unavailable(0xb), Failed to start the server"));
    EXPECT_TRUE(traced({"red", "11"}));
}

TEST_F(server_lifecycle_test, a_server_that_does_not_start_is_not_in_force_until_it_does) {
    const fake_platform::unenforced failure = {"server red", "systemctl restart sshd_service_red failed"};
    for (const int error : {EAGAIN, 0}) {
        stub_commands::fail("systemctl restart", 1, 1);
        errno = error;
        ssh_process_restart(1, "red");
        EXPECT_THAT(fake_platform::not_in_force(), ElementsAre(failure)) << error;
        ssh_process_restart(1, "red");
        EXPECT_THAT(fake_platform::not_in_force(), ElementsAre());
    }
}

TEST_F(server_lifecycle_test, a_server_that_does_not_stop_is_not_in_force) {
    stub_commands::fail("systemctl stop", 1, 1);
    errno = 0;
    ssh_process_restart(0, "red");
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(fake_platform::unenforced{"server red", "systemctl stop sshd_service_red failed"}));
    stub_commands::fail("systemctl stop", 5, 1);
    ssh_process_restart(0, "red");
    EXPECT_THAT(fake_platform::not_in_force(), ElementsAre()) << "a unit that is not loaded is not running";
}

TEST_F(server_lifecycle_test, a_start_that_times_out_is_a_failure) {
    call_faults::limit_commands(200);
    stub_commands::set_delay("systemctl restart", 60000);
    errno = 0;
    EXPECT_EQ(ssh_process_restart(1, "red"), -1);
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(fake_platform::unenforced{"server red", "systemctl restart sshd_service_red timed out"}));
    EXPECT_TRUE(fake_platform::vrf_blocked("red"));
    EXPECT_TRUE(traced({"red", std::to_string(ETIMEDOUT)}));
}

TEST_F(server_lifecycle_test, a_stop_that_times_out_is_a_failure) {
    call_faults::limit_commands(200);
    stub_commands::set_delay("systemctl stop", 60000);
    errno = 0;
    EXPECT_EQ(ssh_process_restart(0, "red"), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(fake_platform::unenforced{"server red", "systemctl stop sshd_service_red timed out"}));
}

// If errno is 0, the exit status is about the unit and not a failure to run the command.
TEST_F(server_lifecycle_test, a_failed_start_without_errno_counts_as_success) {
    stub_commands::fail("systemctl restart", 1);
    errno = 0;
    EXPECT_EQ(ssh_process_restart(1, "red"), 0);
    EXPECT_FALSE(fake_platform::vrf_blocked("red"));
}

TEST_F(server_lifecycle_test, an_earlier_errno_does_not_affect_a_start) {
    errno = EAGAIN;
    EXPECT_EQ(ssh_process_restart(1, "red"), 0);
    EXPECT_FALSE(fake_platform::vrf_blocked("red"));
}

TEST_F(server_lifecycle_test, a_start_without_a_shell_is_a_failure) {
    command_trail::fail_shell("systemctl restart", ENOMEM);
    errno = 0;
    EXPECT_EQ(ssh_process_restart(1, "red"), -1);
    EXPECT_TRUE(fake_platform::vrf_blocked("red"));
}

TEST_F(server_lifecycle_test, a_failed_stop_keeps_errno_and_does_not_unblock) {
    stub_commands::fail("systemctl stop", 5);
    errno = EINTR;
    EXPECT_EQ(ssh_process_restart(0, "red"), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_THAT(trail(), Contains("$ systemctl stop sshd_service_red"));
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("Vrf-name:=red, Error:=Interrupted system call(0x4), Failed to kill the server"));
    EXPECT_TRUE(traced({"red", "4"}));
}

TEST_F(server_lifecycle_test, a_failed_stop_without_errno_counts_as_success) {
    stub_commands::fail("systemctl stop", 5);
    errno = 0;
    EXPECT_EQ(ssh_process_restart(0, "red"), 0);
    EXPECT_THAT(trail(), Contains("mpp_vrf_unblock(red)"));
}

TEST_F(server_lifecycle_test, a_failing_protection_service_does_not_prevent_a_start) {
    for (const char* operation : {"mpp_vrf_nft_init", "mpp_vrf_block", "mpp_vrf_unblock"}) {
        fake_platform::fail(operation, EIO);
    }
    EXPECT_EQ(ssh_process_restart(1, "red"), 0);
    EXPECT_EQ(node->nft_initialised, 1u);
    EXPECT_THAT(trail(), Contains("$ systemctl restart sshd_service_red"));
    EXPECT_TRUE(traced({"red", "5"}));
}

// --- The VRF's file --------------------------------------------------------------------------------------------------

class prepare_vrf_file_test : public vrf_test {
  protected:
    static constexpr char is_active[] = "systemctl is-active sshd_service_red";
    static constexpr char probe[] = "$ systemctl is-active sshd_service_red > /tmp/norvo_ssh_service.txt";
    static constexpr char copy[] = "$ cp /var/opt/norvo/norvossh/sshd_config /var/opt/norvo/norvossh/sshd_config_red";

    uint32_t change = 0;

    int prepare(int new_node) { return prepare_vrf_file("red", 0, nullptr, nullptr, &change, new_node); }
};

TEST_F(prepare_vrf_file_test, a_missing_file_is_copied_from_the_default_file) {
    EXPECT_EQ(prepare(0), 0);
    EXPECT_EQ(read_file(server_file("red")), default_file);
    EXPECT_EQ(change, 1u);
    EXPECT_THAT(trail(), ElementsAre(copy));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("vrf config does not exist, creating"));
}

TEST_F(prepare_vrf_file_test, a_probe_that_times_out_is_a_failure) {
    write_file(server_file("red"), "Port 22\n");
    call_faults::limit_commands(200);
    stub_commands::set_delay("systemctl is-active", 60000);
    EXPECT_EQ(prepare(1), -1);
    EXPECT_THAT(trail(), ElementsAre(probe));
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO",
                                      "Error:=Connection timed out(0x6e), Failed to check process running status"));
    EXPECT_EQ(read_file(server_file("red")), "Port 22\n");
}

TEST_F(prepare_vrf_file_test, a_missing_file_of_a_new_node_needs_no_probe) {
    EXPECT_EQ(prepare(1), 0);
    EXPECT_THAT(trail(), ElementsAre(copy));
}

TEST_F(prepare_vrf_file_test, a_known_nodes_file_is_kept_without_a_probe) {
    write_file(server_file("red"), "Port 22\n");
    EXPECT_EQ(prepare(0), 0);
    EXPECT_EQ(read_file(server_file("red")), "Port 22\n");
    EXPECT_EQ(change, 0u);
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("file exists"));
}

TEST_F(prepare_vrf_file_test, a_running_server_keeps_its_file) {
    write_file(server_file("red"), "Port 22\n");
    stub_commands::set_output(is_active, "active\n");
    EXPECT_EQ(prepare(1), 0);
    EXPECT_EQ(read_file(server_file("red")), "Port 22\n");
    EXPECT_EQ(change, 0u);
    EXPECT_THAT(trail(), ElementsAre(probe));
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("file exists", "vrf-name:=red, content active"));
}

// systemctl ends with status 3 for a unit that is not running; that is a valid answer.
TEST_F(prepare_vrf_file_test, a_stopped_servers_file_is_recreated) {
    write_file(server_file("red"), "Port 22\nMaxSessions 1\n");
    stub_commands::set_output(is_active, "inactive\n");
    stub_commands::fail(is_active, 3);
    EXPECT_EQ(prepare(1), 0);
    EXPECT_EQ(read_file(server_file("red")), default_file);
    EXPECT_EQ(change, 1u);
    EXPECT_THAT(trail(), ElementsAre(probe, copy));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("vrf-name:=red, content inactive"));
}

// An answer that begins with "active" means that the unit is running.
TEST_F(prepare_vrf_file_test, only_an_answer_that_begins_with_active_means_running) {
    for (const char* answer : {"inactive\n", "failed\n", "activating\n", "unknown\n", "\n", " active\n"}) {
        write_file(server_file("red"), "Port 22\n");
        stub_commands::clear_rules();
        stub_commands::set_output(is_active, answer);
        EXPECT_EQ(prepare(1), 0) << answer;
        EXPECT_EQ(read_file(server_file("red")), default_file) << answer;
    }
    for (const char* answer : {"active", "active\n", "active\nsecond line\n"}) {
        write_file(server_file("red"), "Port 22\n");
        stub_commands::clear_rules();
        stub_commands::set_output(is_active, answer);
        EXPECT_EQ(prepare(1), 0) << answer;
        EXPECT_EQ(read_file(server_file("red")), "Port 22\n") << answer;
    }
}

TEST_F(prepare_vrf_file_test, a_probe_without_a_shell_is_reported) {
    write_file(server_file("red"), "Port 22\n");
    command_trail::fail_shell("systemctl is-active", EAGAIN);
    EXPECT_EQ(prepare(1), -1);
    EXPECT_EQ(read_file(server_file("red")), "Port 22\n");
    EXPECT_EQ(change, 0u);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Error:=Resource temporarily unavailable(0xb), Vrf-name:=red, Failed to check process "
                         "running status"));
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=Resource temporarily unavailable(0xb), Failed to check process running "
                            "status"));
}

TEST_F(prepare_vrf_file_test, a_probe_whose_output_cannot_be_opened_is_reported) {
    write_file(server_file("red"), "Port 22\n");
    stub_commands::set_hook(is_active, "rm -f /tmp/norvo_ssh_service.txt");
    EXPECT_EQ(prepare(1), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Error:=No such file or directory(0x2), Vrf-name:=red, Failed to open service file"));
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=No such file or directory(0x2), Failed to open service file"));
}

TEST_F(prepare_vrf_file_test, an_empty_answer_is_reported) {
    write_file(server_file("red"), "Port 22\n");
    errno = EBADF;
    EXPECT_EQ(prepare(1), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Error:=Bad file descriptor(0x9), Vrf-name:=red, Failed to read service file"));
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=Bad file descriptor(0x9), Failed to read service file"));
    EXPECT_EQ(read_file(server_file("red")), "Port 22\n");
}

TEST_F(prepare_vrf_file_test, a_failed_copy_is_reported) {
    command_trail::fail_shell("cp ", ENOMEM);
    EXPECT_EQ(prepare(0), -1);
    EXPECT_EQ(change, 0u);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Error:=Cannot allocate memory(0xc), Vrf-name:=red, Failed to copy config file"));
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=Cannot allocate memory(0xc), Failed to copy config file"));
}

TEST_F(prepare_vrf_file_test, a_failed_recreation_is_reported) {
    write_file(server_file("red"), "Port 22\n");
    stub_commands::set_output(is_active, "inactive\n");
    command_trail::fail_shell("cp ", ENOMEM);
    EXPECT_EQ(prepare(1), -1);
    EXPECT_EQ(change, 0u);
    EXPECT_THAT(fake_platform::debug_texts(), Contains(HasSubstr("Failed to copy config file")));
}

TEST_F(prepare_vrf_file_test, adds_the_line_on_request) {
    write_file(server_file("red"), default_file);
    EXPECT_EQ(prepare_vrf_file("red", 1, "Subsystem netconf", "/pkg/bin/netconf_sshd_proxy -i 0 -o 1", &change, 0), 0);
    EXPECT_EQ(read_file(server_file("red")),
              std::string(default_file) + "Subsystem netconf /pkg/bin/netconf_sshd_proxy -i 0 -o 1\n");
    EXPECT_EQ(change, 1u);
}

TEST_F(prepare_vrf_file_test, an_existing_line_is_not_added_again) {
    write_file(server_file("red"), "MaxSessions 16\n");
    EXPECT_EQ(prepare_vrf_file("red", 1, "MaxSessions", "16", &change, 0), 0);
    EXPECT_EQ(change, 0u);
}

// The editor reports the failure, and the server is started without the line.
TEST_F(prepare_vrf_file_test, a_line_that_cannot_be_added_is_no_failure) {
    write_file(server_file("red"), default_file);
    std::filesystem::create_directory(paths::temporary_file);
    EXPECT_EQ(prepare_vrf_file("red", 1, "MaxSessions", "16", &change, 0), 0);
    EXPECT_EQ(change, 0u);
    EXPECT_EQ(read_file(server_file("red")), default_file);
}

TEST_F(prepare_vrf_file_test, a_set_change_flag_stays_set) {
    write_file(server_file("red"), default_file);
    change = 1;
    EXPECT_EQ(prepare(0), 0);
    EXPECT_EQ(change, 1u);
}

}  // namespace
