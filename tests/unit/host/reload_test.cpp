#include "host/reload.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>

#include "../agent_test.h"
#include "call_faults.h"
#include "command_trail.h"
#include "core/debug.h"
#include "host/shelf_link.h"
#include "platform/event_manager.h"
#include "process_table.h"
#include "vrf/node_registry.h"
#include "vrf/server_lifecycle.h"
#include "vrf/service_unit.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char wrapper[] = "/pkg/bin/ssh_exec.sh";
constexpr char pid_file[] = "/tmp/norvo_ssh_pid.txt";
constexpr char check_file[] = "/tmp/norvo_ssh_pid_check.txt";
constexpr char list_command[] =
    "$ ps -ef | grep '/pkg/bin/ssh_exec.sh' | grep -v 'grep' | awk '{print $2}' > /tmp/norvo_ssh_pid.txt";
constexpr char check_command[] =
    "$ ps -ef | grep '/pkg/bin/ssh_exec.sh' | grep -v 'grep' | awk '{print $2}' > /tmp/norvo_ssh_pid_check.txt";

using ids = std::vector<int32_t>;

class reload_test : public agent_test {
  protected:
    reload_test() {
        event_manager_create(paths::device, &agent_handles.event_manager);
        fake_platform::preset_debug_flag(debug_cfg_agent, true);
        connect_shelf_manager();
        fake_platform::clear_calls();
        stub_commands::install_command("ps");
        command_trail::begin();
    }

    ~reload_test() override {
        command_trail::end();
        forget_vrf_nodes();
        for (const pid_t session : sessions) {
            kill(session, SIGKILL);
            waitpid(session, nullptr, 0);
        }
    }

    /// Output of ps with these wrappers among other lines.
    static std::string table_of(const std::vector<std::string>& pids) {
        std::string table =
            "UID          PID    PPID  C STIME TTY          TIME CMD\nroot 1 0 0 00:00 ? 00:00 /sbin/init\n";
        for (const std::string& pid : pids) {
            const int number = std::atoi(pid.c_str());
            if (number > 0) {
                process_table::add_session(number);
            }
            table += "alice " + pid + " 1 0 00:00 ? 00:00 /bin/sh " + wrapper + "\n";
        }
        return table + "root 77 1 0 00:00 ? 00:00 grep " + wrapper + "\n";
    }

    static void show(const std::vector<std::string>& pids, uint32_t times = stub_commands::always, uint32_t from = 1) {
        stub_commands::set_output("ps -ef", table_of(pids), times, from);
    }

    struct search {
        int error;
        ids found;
        bool has_array;
    };

    static search find() {
        uint32_t count = 99;
        int32_t* found = nullptr;
        search result = {find_exec_sessions(&count, &found), {}, found != nullptr};
        result.found = ids(found, found + count);
        std::free(found);
        return result;
    }

    /// A VRF whose server can be stopped and started.
    static void add_vrf(const std::string& name) {
        create_vrf_node(name.c_str())->server_started = 1;
        std::filesystem::create_directories("/etc/systemd/system");
        ASSERT_EQ(create_sshd_service_config_file(("vrf-" + name).c_str()), 0);
        stub_commands::clear_log();
        fake_platform::clear_calls();
    }

    /// A session: a process in its own group that ends at SIGTERM or ignores it.
    pid_t add_session(bool ignores = false) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        const pid_t session = fork();
        if (session == 0) {
            setpgid(0, 0);
            signal(SIGTERM, ignores ? SIG_IGN : SIG_DFL);
            EXPECT_EQ(write(ready[1], "x", 1), 1);
            for (;;) {
                pause();
            }
        }
        char byte;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
        sessions.push_back(session);
        return session;
    }

    static bool terminated(pid_t session) {
        int status = 0;
        return waitpid(session, &status, 0) == session && WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM;
    }

    /// Reaps a session that has ended, so that the destructor does not signal its process id.
    void expect_terminated(pid_t session) {
        EXPECT_TRUE(terminated(session));
        std::erase(sessions, session);
    }

    static bool acknowledged() { return fake_platform::count_calls("shelf_manager_acknowledge_reload") == 1; }
    static bool printed(const std::string& text) { return fake_platform::logged("INFO_GENERAL", text); }

    process_table::replacement processes_;
    std::vector<pid_t> sessions;
};

// --- The list of sessions --------------------------------------------------------------------------------------------

TEST_F(reload_test, sessions_are_found_in_the_process_table) {
    show({"4711", "4712", "99999"});
    const search result = find();
    EXPECT_EQ(result.error, 0);
    EXPECT_THAT(result.found, ElementsAre(4711, 4712, 99999));
    EXPECT_THAT(fake_platform::calls(), ElementsAre(list_command));
    EXPECT_EQ(read_file(pid_file), "4711\n4712\n99999\n");
}

TEST_F(reload_test, without_sessions_there_is_no_error) {
    show({});
    const search result = find();
    EXPECT_EQ(result.error, 0);
    EXPECT_THAT(result.found, IsEmpty());
}

TEST_F(reload_test, thousands_of_sessions_are_found) {
    std::vector<std::string> pids;
    ids expected;
    for (int32_t pid = 100000; pid < 103000; pid++) {
        pids.push_back(std::to_string(pid));
        expected.push_back(pid);
    }
    show(pids);
    EXPECT_EQ(find().found, expected);
}

// The file never makes the agent signal itself, its group, every process or an invalid number.
TEST_F(reload_test, only_positive_process_ids_of_others_are_accepted) {
    const std::string own = std::to_string(getpid());
    const std::string group = std::to_string(getpgrp());
    show({"0", "1", "-1", own, group, "12abc", "99999999999", "2147483648", "18446744073709551617", "abc", "4711.5",
          "0x10", "+", "4711", "-4712", "2147483647", "4294967297"});
    const search result = find();
    EXPECT_EQ(result.error, 0);
    EXPECT_THAT(result.found, ElementsAre(4711, 2147483647));
}

// Lines that ps never prints, written into the file directly.
TEST_F(reload_test, lines_that_are_not_numbers_are_skipped) {
    const std::string long_line(9000, '7');
    using namespace std::string_literals;
    write_file("/tmp/planted", "\n\n4711\n   \n"s + long_line + "\n\0x\n12 13\n4712\n"s);
    process_table::add_session(4711);
    process_table::add_session(4712);
    stub_commands::install_command("awk");
    stub_commands::set_hook("awk", "cat /tmp/planted");
    const search result = find();
    EXPECT_EQ(result.error, 0);
    EXPECT_THAT(result.found, ElementsAre(4711, 4712));
}

TEST_F(reload_test, a_last_line_without_newline_is_not_counted) {
    write_file("/tmp/planted", "4711\n4712");
    process_table::add_session(4711);
    process_table::add_session(4712);
    stub_commands::install_command("awk");
    stub_commands::set_hook("awk", "cat /tmp/planted");
    EXPECT_THAT(find().found, ElementsAre(4711));
}

// The pipeline would write to the target of a link, so the link is removed first.
TEST_F(reload_test, planted_links_are_not_followed) {
    show({"4711"});
    write_file("/etc/precious", "precious");
    std::filesystem::create_symlink("/etc/precious", pid_file);
    std::filesystem::create_symlink("/etc/precious", check_file);
    EXPECT_THAT(find().found, ElementsAre(4711));
    EXPECT_EQ(read_file("/etc/precious"), "precious");
    EXPECT_FALSE(std::filesystem::is_symlink(pid_file));
    show({});
    fake_platform::shelf_reload();
    EXPECT_EQ(read_file("/etc/precious"), "precious");
    EXPECT_FALSE(std::filesystem::is_symlink(check_file));
}

TEST_F(reload_test, a_shell_that_cannot_be_run_is_an_error) {
    command_trail::fail_shell("ps -ef", EAGAIN);
    const search result = find();
    EXPECT_EQ(result.error, EAGAIN);
    EXPECT_FALSE(result.has_array);
    EXPECT_TRUE(
        fake_platform::debugged("Error:=Resource temporarily unavailable(0xb), cannot find running exec processess"));
}

TEST_F(reload_test, a_process_that_only_has_the_wrappers_name_does_not_count) {
    show({"4711", "4712", "4713"});
    process_table::add(4712, 4711, process_table::ordinary_user, "/bin/dash");
    EXPECT_THAT(find().found, ElementsAre(4711, 4713));
}

TEST_F(reload_test, the_reload_is_acknowledged_while_such_a_process_lives) {
    const pid_t other = add_session();
    show({std::to_string(other)});
    process_table::add(other, 1, process_table::ordinary_user, "/bin/dash");
    fake_platform::shelf_reload();
    EXPECT_TRUE(acknowledged());
    EXPECT_EQ(waitpid(other, nullptr, WNOHANG), 0) << "it was signalled";
}

TEST_F(reload_test, servers_stay_down_until_the_timer_expires) {
    show({});
    add_vrf("red");
    vrf_node* node = find_vrf_node("red");
    fake_platform::shelf_reload();
    EXPECT_TRUE(servers_are_held_down());
    stub_commands::clear_log();
    EXPECT_EQ(ssh_process_restart(1, "red"), 0);
    node->server_started = 0;
    EXPECT_EQ(restart_server_of(node), 0);
    EXPECT_EQ(node->server_started, 0U);
    EXPECT_THAT(stub_commands::log_of("systemctl"), IsEmpty());
    EXPECT_EQ(ssh_process_restart(0, "red"), 0);
    EXPECT_THAT(stub_commands::log_of("systemctl"), ElementsAre("systemctl stop sshd_service_red"));
    stub_commands::clear_log();
    fake_platform::advance_time(120);
    EXPECT_FALSE(servers_are_held_down());
    EXPECT_THAT(stub_commands::log_of("systemctl"), ElementsAre("systemctl restart sshd_service_red"));
    EXPECT_EQ(node->server_started, 1U);
    EXPECT_EQ(ssh_process_restart(1, "red"), 0);
    EXPECT_EQ(stub_commands::log_of("systemctl").size(), 2U);
}

TEST_F(reload_test, a_listing_that_times_out_is_an_error) {
    call_faults::limit_commands(200);
    stub_commands::set_delay("ps -ef", 60000);
    const search result = find();
    EXPECT_EQ(result.error, ETIMEDOUT);
    EXPECT_FALSE(result.has_array);
}

// A failed command returns the errno that is set, which may be 0.
TEST_F(reload_test, a_failed_command_returns_the_current_errno) {
    stub_commands::install_command("awk");
    stub_commands::fail("awk", 2);
    errno = 0;
    const search none = find();
    EXPECT_EQ(none.error, 0);
    EXPECT_THAT(none.found, IsEmpty());
    EXPECT_FALSE(none.has_array);
    errno = EBADF;
    EXPECT_EQ(find().error, EBADF);
}

TEST_F(reload_test, a_list_that_cannot_be_opened_is_an_error) {
    show({"4711"});
    call_faults::fail_call("fopen", EACCES, call_faults::once, 1, pid_file);
    const search result = find();
    EXPECT_EQ(result.error, EACCES);
    EXPECT_FALSE(result.has_array);
    EXPECT_TRUE(fake_platform::debugged("Error:=Permission denied(0xd), pid file open failed"));
}

TEST_F(reload_test, running_out_of_memory_is_an_error) {
    show({"4711"});
    call_faults::fail_call("calloc", ENOMEM, call_faults::once);
    const search result = find();
    EXPECT_EQ(result.error, ENOMEM);
    EXPECT_FALSE(result.has_array);
}

TEST_F(reload_test, the_list_is_closed) {
    show({"4711"});
    find();
    const size_t open_before = directory_names("/proc/self/fd").size();
    for (int i = 0; i < 5; i++) {
        find();
    }
    call_faults::fail_call("calloc", ENOMEM, call_faults::once);
    find();
    EXPECT_EQ(directory_names("/proc/self/fd").size(), open_before);
}

// --- The notice ------------------------------------------------------------------------------------------------------

TEST_F(reload_test, without_sessions_the_acknowledgement_is_sent_immediately) {
    show({});
    fake_platform::shelf_reload();
    EXPECT_TRUE(acknowledged());
    EXPECT_THAT(fake_platform::calls(),
                ElementsAre("managed_timer_attach()", "managed_timer_leaf_create(0)", "managed_timer_leaf_start(120)",
                            list_command, check_command, "shelf_manager_acknowledge_reload()"));
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("INFO_GENERAL: shutdown event for ssh server received",
                            "INFO_GENERAL: Active Sessions:=0, Will close these sessions",
                            "INFO_GENERAL: Active Sessions:=0, SIGHUP sent:=0, router is shutting down/reloading",
                            "INFO_SHUTDOWN: Active Sessions:=0, Sessions Terminated:=0, signal sent during "
                            "shutdown:=0, all active sessions terminated",
                            "INFO_GENERAL: Sending ack to shelf-mgr after graceful exit of all the active sessions"));
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("shutdown event for ssh server received", "Active Sessions:=0, Will close these sessions",
                            "Active Sessions:=0, SIGHUP sent:=0, router is shutting down/reloading",
                            "Act Sessions:=0, SIGHUP sent:=0,terminated:=0, all active sessions terminated ",
                            "Sending ack to shelf-mgr after graceful exit of all the active sessions"));
    EXPECT_EQ(fake_platform::running_timers(), 1u);
}

TEST_F(reload_test, every_vrfs_server_is_stopped_before_the_sessions_are_listed) {
    add_vrf("default");
    add_vrf("red");
    show({});
    fake_platform::shelf_reload();
    EXPECT_THAT(fake_platform::calls(),
                ElementsAre("managed_timer_attach()", "managed_timer_leaf_create(0)", "managed_timer_leaf_start(120)",
                            "$ systemctl stop sshd_service_red", "mpp_vrf_unblock(red)",
                            "$ systemctl stop sshd_service_default", "mpp_vrf_unblock(default)", list_command,
                            check_command, "shelf_manager_acknowledge_reload()"));
    EXPECT_TRUE(printed("Router is shutting down, killing daemon"));
}

TEST_F(reload_test, sessions_are_ended_and_then_acknowledged) {
    const pid_t first = add_session();
    const pid_t second = add_session();
    const pid_t third = add_session();
    show({std::to_string(first), std::to_string(second), std::to_string(third)}, 1);
    show({std::to_string(second)}, 1, 2);
    show({}, stub_commands::always, 3);
    fake_platform::shelf_reload();
    for (const pid_t session : {first, second, third}) {
        expect_terminated(session);
    }
    EXPECT_TRUE(acknowledged());
    EXPECT_TRUE(printed("Active Sessions:=3, Will close these sessions"));
    // The message names another signal.
    EXPECT_TRUE(printed("Active Sessions:=3, SIGHUP sent:=3, router is shutting down/reloading"));
    EXPECT_TRUE(fake_platform::logged("INFO_SHUTDOWN",
                                      "Active Sessions:=3, Sessions Terminated:=3, signal sent during shutdown:=3, all "
                                      "active sessions terminated"));
    EXPECT_EQ(stub_commands::log_of("ps -ef").size(), 3u);
}

// Each session is a process group, so its commands are signalled with its wrapper.
TEST_F(reload_test, the_whole_group_of_a_session_is_signalled) {
    const pid_t leader = add_session();
    const pid_t member = add_session();
    ASSERT_EQ(setpgid(member, leader), 0);
    show({std::to_string(leader)}, 1);
    show({}, stub_commands::always, 2);
    fake_platform::shelf_reload();
    expect_terminated(leader);
    expect_terminated(member);
}

TEST_F(reload_test, a_session_that_has_already_ended_is_no_failure) {
    const pid_t session = add_session();
    kill(session, SIGKILL);
    waitpid(session, nullptr, 0);
    sessions.clear();
    show({std::to_string(session)}, 1);
    show({}, stub_commands::always, 2);
    fake_platform::shelf_reload();
    EXPECT_TRUE(acknowledged());
    EXPECT_TRUE(printed("Active Sessions:=1, SIGHUP sent:=0, router is shutting down/reloading"));
    EXPECT_THAT(fake_platform::log_texts(), Each(Not(HasSubstr("Failed"))));
}

TEST_F(reload_test, a_signal_that_is_refused_is_logged) {
    const pid_t session = add_session();
    show({std::to_string(session)}, 1);
    show({}, stub_commands::always, 2);
    call_faults::fail_call("kill", EPERM, call_faults::once);
    fake_platform::shelf_reload();
    EXPECT_TRUE(fake_platform::logged(
        "ERR_GENERAL",
        "Pid:=" + std::to_string(session) + ", Error:=Operation not permitted(0x1),Failed to send SIGTERM"));
    EXPECT_TRUE(printed("Active Sessions:=1, SIGHUP sent:=0, router is shutting down/reloading"));
    EXPECT_TRUE(acknowledged());
}

// If this process, its group or every process were signalled, this test would not survive.
TEST_F(reload_test, hostile_numbers_signal_no_process) {
    show({"0", "1", "-1", std::to_string(getpid()), std::to_string(getpgrp()), "12abc", "99999999999"}, 1);
    show({}, stub_commands::always, 2);
    const uint32_t signals = call_faults::count_calls("kill");
    fake_platform::shelf_reload();
    EXPECT_EQ(call_faults::count_calls("kill"), signals);
    EXPECT_TRUE(printed("Active Sessions:=0, Will close these sessions"));
    EXPECT_TRUE(acknowledged());
}

TEST_F(reload_test, a_failed_listing_does_not_stop_the_reload) {
    show({});
    command_trail::fail_shell(list_command + 2, ENOMEM);
    fake_platform::shelf_reload();
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO",
                                      "Error:=Cannot allocate memory(0xc), Failed to get incoming session list, "
                                      "Sessions will not be gracefully closed"));
    EXPECT_THAT(fake_platform::log_texts(), Each(Not(HasSubstr("Will close these sessions"))));
    EXPECT_TRUE(acknowledged());
}

TEST_F(reload_test, a_failed_check_is_repeated) {
    show({});
    call_faults::fail_call("fopen", EACCES, 3, 1, check_file);
    fake_platform::shelf_reload();
    EXPECT_TRUE(acknowledged());
    EXPECT_EQ(stub_commands::log_of("ps -ef").size(), 5u);
    EXPECT_TRUE(fake_platform::debugged("Error:=Permission denied(0xd), pid file open failed"));
}

TEST_F(reload_test, a_failed_acknowledgement_is_printed_in_debug) {
    show({});
    fake_platform::fail("shelf_manager_acknowledge_reload", EPIPE);
    fake_platform::shelf_reload();
    EXPECT_TRUE(fake_platform::debugged("Error:=32, Failed to send system reload ack to shelf-mgr"));
    EXPECT_FALSE(fake_platform::trace_lines_of("ssh/cfg-agent/error").empty());
}

// More sessions than were signalled: somebody logged in while the servers were being stopped.
TEST_F(reload_test, the_count_of_ended_sessions_does_not_wrap) {
    show({}, 1);
    show({"4711", "4712"}, 1, 2);
    show({}, stub_commands::always, 3);
    fake_platform::shelf_reload();
    EXPECT_TRUE(fake_platform::logged("INFO_SHUTDOWN",
                                      "Active Sessions:=0, Sessions Terminated:=0, signal sent during shutdown:=0, all "
                                      "active sessions terminated"));
}

// --- The failure timer -----------------------------------------------------------------------------------------------

constexpr char will_not_proceed[] = "ERR_GENERAL: Failed to start the shutdown failuretimer/ Will not proceed";

TEST_F(reload_test, without_the_timer_nothing_is_stopped) {
    add_vrf("red");
    const std::pair<const char*, const char*> cases[] = {
        {"managed_timer_attach",
         "ERR_ERRNO: Error:=Input/output error(0x5), Failed to attach sys shutdown fail timer handler"},
        {"managed_timer_leaf_create",
         "ERR_ERRNO: Error:=Input/output error(0x5), Failed to create sys shutdown fail leaf timer"},
        {"managed_timer_leaf_start",
         "ERR_ERRNO: Error:=Input/output error(0x5), Failed to start sys shutdown fail leaf timer"},
    };
    for (const auto& [operation, message] : cases) {
        SCOPED_TRACE(operation);
        fake_platform::clear_reports();
        fake_platform::fail(operation, EIO);
        fake_platform::shelf_reload();
        fake_platform::clear_failures();
        EXPECT_THAT(fake_platform::log_texts(),
                    ElementsAre("INFO_GENERAL: shutdown event for ssh server received", message, will_not_proceed));
        EXPECT_THAT(stub_commands::log(), IsEmpty());
        EXPECT_EQ(fake_platform::count_calls("shelf_manager_acknowledge_reload"), 0u);
        EXPECT_EQ(fake_platform::running_timers(), 0u);
    }
    show({});
    fake_platform::shelf_reload();
    EXPECT_TRUE(acknowledged());
}

TEST_F(reload_test, servers_start_again_if_the_reload_does_not_happen) {
    add_vrf("default");
    add_vrf("red");
    const pid_t session = add_session();
    show({std::to_string(session)}, 1);
    show({}, stub_commands::always, 2);
    fake_platform::shelf_reload();
    expect_terminated(session);
    fake_platform::clear_calls();
    fake_platform::clear_reports();
    fake_platform::advance_time(119);
    EXPECT_THAT(fake_platform::calls(), IsEmpty());
    fake_platform::advance_time(1);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_SHUTDOWN: Active Sessions:=1, Sessions Terminated:=1, signal sent during shutdown:=1, "
                            "System shutdown seems to have some issues, SSH will start the services again",
                            "INFO_GENERAL: Shutdown timer expires, starting daemon",
                            "INFO_GENERAL: Shutdown timer expires, starting daemon"));
    EXPECT_TRUE(
        fake_platform::debugged("Active Sessions:=1, Sessions Terminated:=1, signal sent during shutdown:=1,  system "
                                "shutdown seems to have some issues, SSH will start the services again"));
    EXPECT_THAT(fake_platform::calls(),
                ElementsAre("mpp_vrf_nft_init(red)", "mpp_vrf_block(red)", "$ systemctl restart sshd_service_red",
                            "mpp_vrf_unblock(red)", "mpp_vrf_nft_init(default)", "mpp_vrf_block(default)",
                            "$ systemctl restart sshd_service_default", "mpp_vrf_unblock(default)",
                            "managed_timer_detach(0)", "managed_timer_leaf_stop()", "managed_timer_leaf_free(leaf)"));
    EXPECT_EQ(fake_platform::running_timers(), 0u);

    // The counters are reset, and the timer is started again.
    show({});
    stub_commands::clear_rules();
    show({});
    fake_platform::clear_reports();
    fake_platform::shelf_reload();
    EXPECT_TRUE(printed("Active Sessions:=0, SIGHUP sent:=0, router is shutting down/reloading"));
    EXPECT_EQ(fake_platform::running_timers(), 1u);
}

// It ignores the signal: after five seconds there is no acknowledgement.
TEST_F(reload_test, a_session_that_does_not_end_prevents_the_acknowledgement) {
    add_vrf("red");
    const pid_t session = add_session(true);
    show({std::to_string(session)});
    const auto begin = std::chrono::steady_clock::now();
    fake_platform::shelf_reload();
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(taken, std::chrono::seconds(5));
    EXPECT_LT(taken, std::chrono::seconds(7));
    EXPECT_FALSE(acknowledged());
    EXPECT_EQ(kill(session, 0), 0);
    EXPECT_EQ(fake_platform::running_timers(), 1u);
    EXPECT_TRUE(printed("Active Sessions:=1, SIGHUP sent:=1, router is shutting down/reloading"));
    EXPECT_THAT(fake_platform::log_texts(), Each(Not(HasSubstr("all active sessions terminated"))));
    stub_commands::clear_log();
    fake_platform::advance_time(120);
    EXPECT_THAT(stub_commands::log_of("systemctl"), ElementsAre("systemctl restart sshd_service_red"));
    EXPECT_TRUE(fake_platform::logged("ERR_SHUTDOWN",
                                      "Active Sessions:=1, Sessions Terminated:=0, signal sent during shutdown:=1, "
                                      "System shutdown seems to have some issues, SSH will start the services again"));
}

TEST_F(reload_test, a_second_notice_restarts_the_timer) {
    add_vrf("red");
    show({});
    fake_platform::shelf_reload();
    fake_platform::advance_time(100);
    fake_platform::shelf_reload();
    EXPECT_EQ(fake_platform::running_timers(), 1u);
    stub_commands::clear_log();
    fake_platform::advance_time(119);
    EXPECT_THAT(stub_commands::log_of("systemctl"), IsEmpty());
    fake_platform::advance_time(1);
    EXPECT_THAT(stub_commands::log_of("systemctl"), ElementsAre("systemctl restart sshd_service_red"));
    EXPECT_EQ(fake_platform::count_calls("managed_timer_detach"), 2u);
    EXPECT_EQ(fake_platform::count_calls("managed_timer_leaf_free"), 2u);
}

}  // namespace
