#include "oper/session_query.h"

#include <cerrno>
#include <cstring>

#include "call_faults.h"
#include "oper/trace_points.h"
#include "session_test.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

/// The result of a read.
struct collected {
    uint32_t count = 9;
    session_snapshot* snapshots = reinterpret_cast<session_snapshot*>(1);
    int status;

    explicit collected(int (*collect)(uint32_t*, session_snapshot**)) : status(collect(&count, &snapshots)) {}
    ~collected() { free(snapshots); }
    collected(const collected&) = delete;
    collected& operator=(const collected&) = delete;

    std::vector<uint32_t> ids() const {
        std::vector<uint32_t> ids;
        for (uint32_t i = 0; i < count; i++) {
            ids.push_back(snapshots[i].session_id);
        }
        return ids;
    }
};

/// Both kinds of peers and their differences.
struct peer_kind {
    const char* name;
    int (*query)(session_snapshot* snapshot, int pid);
    int (*collect)(uint32_t* count, session_snapshot** snapshots);
    std::string (*listing)(const std::vector<int>& pids);
    const char* pid_file;
    const char* connected;
    const char* received;
    const char* send_failed;
    const char* timed_out;
    const char* not_found;
};

const peer_kind kinds[] = {
    {"server", connectToSSHDaemon, ssh_oper_collect_server_sessions, session_peers::listing_of_servers,
     "/tmp/norvo_ssh_oper_pid.txt", "connected to monitor process",
     "connectToSSHDaemon, data received sessionid:=42, length:=2320 open-channels:=2",
     "Error:=Broken pipe(0x20), PID:=7, send to ssh  process failed", "No data from SSH server within timeout",
     "Error:=No child processes(0xa), cannot find running monitor processess"},
    {"client", connectToSSHClient, ssh_oper_collect_client_sessions, session_peers::listing_of_clients,
     "/tmp/norvossh_client_oper_pid.txt", "connected to ssh client process",
     "connectToSSHClient, data received sessionid:=42, length:=2320 open-channels:=2",
     "Error:=Broken pipe(0x20), PID:=7, send to ssh  client failed", "No data from SSH client within timeout",
     "Error:=No child processes(0xa), cannot find running client processess"},
};

class session_query_test : public session_test {
  protected:
    session_query_test() {
        show_debug_lines();
        call_faults::clear();
    }

    session_snapshot snapshot = {};
};

class session_query_both_test : public session_query_test, public testing::WithParamInterface<peer_kind> {};

INSTANTIATE_TEST_SUITE_P(kinds, session_query_both_test, testing::ValuesIn(kinds),
                         [](const auto& kind) { return std::string(kind.param.name); });

}  // namespace

TEST_P(session_query_both_test, a_complete_snapshot_is_accepted) {
    peers.answer(7, usual_snapshot(42));
    peers.start();
    EXPECT_EQ(GetParam().query(&snapshot, 7), 0);
    EXPECT_EQ(bytes_of(snapshot), bytes_of(usual_snapshot(42)));
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("/run/norvossh_oper7", GetParam().connected, GetParam().received));
}

TEST_P(session_query_both_test, the_request_is_zero_one_and_an_ignored_number) {
    peers.answer(7, [](uint32_t, std::string_view request) {
        const bool known = request.size() == 12 && request.starts_with(std::string("\0\0\0\0\1\0\0\0", 8));
        return bytes_of(usual_snapshot(known ? 12 : 0));
    });
    peers.start();
    EXPECT_EQ(GetParam().query(&snapshot, 7), 0);
    EXPECT_EQ(snapshot.session_id, 12U);
}

TEST_P(session_query_both_test, a_silent_peer_leaves_an_empty_snapshot_after_100_ms) {
    peers.keep_silent(9);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(GetParam().query(&snapshot, 9), 0);
    EXPECT_GE(seconds_since(start), 0.1);
    EXPECT_EQ(snapshot.session_id, no_session);
    EXPECT_TRUE(fake_platform::debugged(GetParam().timed_out));
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
}

TEST_P(session_query_both_test, a_stopped_peer_is_silent) {
    peers.answer(9, usual_snapshot(1));
    peers.start();
    peers.stop();
    EXPECT_EQ(GetParam().query(&snapshot, 9), 0);
    EXPECT_EQ(snapshot.session_id, no_session);
}

TEST_P(session_query_both_test, a_peer_with_a_full_queue_is_a_failure) {
    peers.keep_silent(9);
    for (int i = 0; i < 17; i++) {
        EXPECT_EQ(GetParam().query(&snapshot, 9), 0) << i;
    }
    EXPECT_EQ(GetParam().query(&snapshot, 9), -1);
    EXPECT_TRUE(
        fake_platform::debugged("Error:=Resource temporarily unavailable(0xb), client socket connection failed"));
}

TEST_P(session_query_both_test, a_missing_peer_is_a_failure) {
    EXPECT_EQ(GetParam().query(&snapshot, 4711), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("/run/norvossh_oper4711",
                            "Error:=No such file or directory(0x2), client socket connection failed"));
}

TEST_P(session_query_both_test, a_socket_that_cannot_be_created_is_a_failure) {
    call_faults::fail_call("socket", EMFILE);
    EXPECT_EQ(GetParam().query(&snapshot, 7), -1);
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("Error:=Too many open files(0x18), client socket creation failed"));
}

TEST_P(session_query_both_test, the_receive_timeout_is_set_first_and_its_failure_ends_the_query) {
    call_faults::fail_call("setsockopt", ENOMEM);
    EXPECT_EQ(GetParam().query(&snapshot, 7), -1);
    EXPECT_EQ(call_faults::count_calls("setsockopt"), 1U);
    EXPECT_EQ(call_faults::count_calls("connect"), 0U);
    EXPECT_EQ(call_faults::count_calls("close"), 1U);
    EXPECT_TRUE(fake_platform::debugged("Error:=Cannot allocate memory(0xc), Option:=20, socket option set failed"));
    const auto traced = fake_platform::trace_lines_of("ssh/cfg-agent/error");
    ASSERT_EQ(traced.size(), 1U);
    EXPECT_EQ(traced[0].code, static_cast<uint32_t>(oper_trace_socket_option));
    EXPECT_THAT(traced[0].arguments, ElementsAre("12", "20"));
}

TEST_P(session_query_both_test, a_send_timeout_that_cannot_be_set_ends_the_query) {
    call_faults::fail_call("setsockopt", EINVAL, call_faults::always, 2);
    EXPECT_EQ(GetParam().query(&snapshot, 7), -1);
    EXPECT_EQ(call_faults::count_calls("close"), 1U);
    EXPECT_TRUE(fake_platform::debugged("Error:=Invalid argument(0x16), Option:=21, socket option set failed"));
    const auto traced = fake_platform::trace_lines_of("ssh/cfg-agent/error");
    ASSERT_EQ(traced.size(), 1U);
    EXPECT_THAT(traced[0].arguments, ElementsAre("22", "21"));
}

TEST_P(session_query_both_test, a_request_that_cannot_be_sent_is_a_failure) {
    peers.answer(7, usual_snapshot(1));
    peers.start();
    call_faults::fail_call("send", EPIPE);
    EXPECT_EQ(GetParam().query(&snapshot, 7), -1);
    EXPECT_EQ(call_faults::count_calls("close"), 1U);
    EXPECT_TRUE(fake_platform::debugged(GetParam().send_failed));
}

TEST_P(session_query_both_test, a_peer_that_hangs_up_is_a_failure) {
    peers.hang_up(7);
    peers.start();
    EXPECT_EQ(GetParam().query(&snapshot, 7), -1);
}

TEST_P(session_query_both_test, an_empty_answer_is_a_failure) {
    peers.answer(7, std::string());
    peers.start();
    EXPECT_EQ(GetParam().query(&snapshot, 7), -1);
}

TEST_P(session_query_both_test, no_query_leaves_a_descriptor_behind) {
    peers.answer(1, usual_snapshot(1));
    peers.answer(2, "short");
    peers.hang_up(3);
    peers.keep_silent(4);
    peers.start();
    const size_t descriptors = directory_names("/proc/self/fd").size();
    for (const int pid : {1, 2, 3, 4, 5}) {
        GetParam().query(&snapshot, pid);
    }
    for (const char* call : {"setsockopt", "connect", "send", "recv"}) {
        call_faults::fail_call(call, EIO, call_faults::once);
        EXPECT_EQ(GetParam().query(&snapshot, 1), -1) << call;
    }
    EXPECT_EQ(directory_names("/proc/self/fd").size(), descriptors);
}

TEST_F(session_query_test, a_server_answer_of_another_length_is_refused) {
    peers.answer(100, std::string(100, 'x'));
    peers.answer(2319, std::string(2319, 'x'));
    peers.answer(2321, std::string(2321, 'x'));
    peers.start();
    for (const int size : {100, 2319, 2321}) {
        EXPECT_EQ(connectToSSHDaemon(&snapshot, size), -1) << size;
    }
    EXPECT_THAT(fake_platform::debug_texts(), Not(Contains(StartsWith("connectToSSHDaemon, data received"))));
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
}

TEST_F(session_query_test, a_short_client_answer_is_accepted_and_the_rest_stays_zero) {
    peers.answer(8, std::string(100, 'x'));
    peers.start();
    EXPECT_EQ(connectToSSHClient(&snapshot, 8), 0);
    EXPECT_EQ(bytes_of(snapshot), std::string(100, 'x') + std::string(sizeof snapshot - 100, '\0'));
    EXPECT_TRUE(
        fake_platform::debugged("connectToSSHClient, data received sessionid:=2021161080, length:=100 "
                                "open-channels:=0"));
}

TEST_F(session_query_test, a_long_client_answer_is_truncated_and_its_length_printed) {
    peers.answer(8, bytes_of(usual_snapshot(6)) + "x");
    peers.start();
    EXPECT_EQ(connectToSSHClient(&snapshot, 8), 0);
    EXPECT_EQ(bytes_of(snapshot), bytes_of(usual_snapshot(6)));
    EXPECT_TRUE(
        fake_platform::debugged("connectToSSHClient, data received sessionid:=6, length:=2321 open-channels:=2"));
}

TEST_F(session_query_test, a_servers_failure_to_receive_is_printed_and_a_clients_logged) {
    peers.answer(7, usual_snapshot(1));
    peers.start();
    call_faults::fail_call("recv", ECONNRESET);
    EXPECT_EQ(connectToSSHDaemon(&snapshot, 7), -1);
    EXPECT_TRUE(fake_platform::debugged("Error:=Connection reset by peer(0x68), receive data failed"));
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
    fake_platform::clear_reports();
    EXPECT_EQ(connectToSSHClient(&snapshot, 7), -1);
    EXPECT_FALSE(fake_platform::debugged("Error:=Connection reset by peer(0x68), receive data failed"));
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=Connection reset by peer(0x68), receive data failed"));
}

TEST_P(session_query_both_test, sessions_come_in_the_order_of_their_ids) {
    peers.answer(31, usual_snapshot(0x80000000));
    peers.answer(32, std::string());
    peers.keep_silent(33);
    peers.answer(34, usual_snapshot(7));
    peers.start();
    list_processes(GetParam().listing({31, 32, 33, 34}));
    const collected found(GetParam().collect);
    EXPECT_EQ(found.status, 0);
    EXPECT_THAT(found.ids(), ElementsAre(7U, 0x80000000, no_session));
    EXPECT_FALSE(path_exists(GetParam().pid_file));
}

TEST_P(session_query_both_test, peers_that_fail_do_not_affect_the_others) {
    peers.answer(31, usual_snapshot(3));
    peers.keep_silent(32);
    peers.hang_up(33);
    peers.answer(34, std::string());
    peers.keep_silent(35);
    peers.answer(37, usual_snapshot(1));
    peers.start();
    list_processes(GetParam().listing({31, 32, 33, 34, 35, 36, 37}));
    const auto start = std::chrono::steady_clock::now();
    const collected found(GetParam().collect);
    // Seven processes with up to 200 ms each, the listing, and a busy machine.
    EXPECT_LT(seconds_since(start), 7 * 0.2 + 2);
    EXPECT_THAT(found.ids(), ElementsAre(1U, 3U, no_session, no_session));
    EXPECT_EQ(bytes_of(found.snapshots[0]), bytes_of(usual_snapshot(1)));
    EXPECT_EQ(bytes_of(found.snapshots[1]), bytes_of(usual_snapshot(3)));
}

TEST_P(session_query_both_test, unterminated_texts_are_terminated_within_their_fields) {
    peers.answer(31, std::string(sizeof(session_snapshot), 'x'));
    peers.start();
    list_processes(GetParam().listing({31}));
    const collected found(GetParam().collect);
    ASSERT_EQ(found.count, 1U);
    const session_snapshot& session = found.snapshots[0];
    for (const auto& line : session.line) {
        EXPECT_EQ(strnlen(line, sizeof line), 63U);
    }
    EXPECT_EQ(strlen(session.user_id), 63U);
    EXPECT_EQ(strlen(session.remote_host), 255U);
    EXPECT_EQ(strlen(session.authentication_method), 31U);
    for (const auto* name : {&session.kex_algorithm, &session.host_key_algorithm, &session.in_cipher,
                             &session.out_cipher, &session.in_mac, &session.out_mac}) {
        EXPECT_EQ(strnlen(*name, sizeof *name), 99U);
    }
    EXPECT_EQ(strlen(session.time_to_rekey), 27U);
    EXPECT_EQ(session.session_pid, 0x78787878U) << "a text must end within its field";
    EXPECT_EQ(session.protocol_version, 0x78787878U);
}

TEST_P(session_query_both_test, without_processes_there_are_no_snapshots) {
    const collected found(GetParam().collect);
    EXPECT_EQ(found.status, 0);
    EXPECT_EQ(found.count, 0U);
    EXPECT_FALSE(path_exists(GetParam().pid_file));
}

TEST_P(session_query_both_test, lines_that_are_not_process_ids_are_skipped) {
    peers.answer(31, usual_snapshot(1));
    peers.start();
    const std::string line = GetParam().listing({31});
    list_processes(line + "root nobody sshd: priv /pkg/bin/ssh_csm \nroot 0 sshd: priv /pkg/bin/ssh_csm \n\n" + line);
    const collected found(GetParam().collect);
    EXPECT_THAT(found.ids(), ElementsAre(1U, 1U));
}

TEST_P(session_query_both_test, a_failed_listing_has_set_its_outputs) {
    call_faults::answer_command("ps -ef", 256, ECHILD);
    const collected found(GetParam().collect);
    EXPECT_EQ(found.status, ECHILD);
    EXPECT_EQ(found.count, 0U);
    EXPECT_EQ(found.snapshots, nullptr);
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre(GetParam().not_found));
}

TEST_P(session_query_both_test, a_listing_that_times_out_has_set_its_outputs) {
    call_faults::limit_commands(200);
    stub_commands::set_delay("ps -ef", 60000);
    const collected found(GetParam().collect);
    EXPECT_EQ(found.status, ETIMEDOUT);
    EXPECT_EQ(found.count, 0U);
    EXPECT_EQ(found.snapshots, nullptr);
}

TEST_P(session_query_both_test, a_listing_that_cannot_be_opened_has_set_its_outputs) {
    call_faults::fail_call("fopen", EACCES);
    const collected found(GetParam().collect);
    EXPECT_EQ(found.status, EACCES);
    EXPECT_EQ(found.count, 0U);
    EXPECT_EQ(found.snapshots, nullptr);
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("Error:=Permission denied(0xd), pid file open failed"));
}

TEST_P(session_query_both_test, exhausted_memory_for_the_snapshots_is_reported) {
    list_processes(GetParam().listing({31}));
    call_faults::fail_call("calloc", ENOMEM, call_faults::once);
    const collected found(GetParam().collect);
    EXPECT_EQ(found.status, ENOMEM);
    EXPECT_EQ(found.count, 0U);
    EXPECT_EQ(found.snapshots, nullptr);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(StartsWith("ERR_MALLOC: Error:=Cannot allocate memory(0xc), Location:=ssh_oper_collect_")));
    EXPECT_FALSE(path_exists(GetParam().pid_file));
}

TEST_P(session_query_both_test, a_listing_that_cannot_be_removed_is_traced_but_no_failure) {
    peers.answer(31, usual_snapshot(1));
    peers.start();
    list_processes(GetParam().listing({31}));
    call_faults::fail_call("remove", EBUSY);
    const collected found(GetParam().collect);
    EXPECT_EQ(found.status, 0);
    EXPECT_THAT(found.ids(), ElementsAre(1U));
    const auto traced = fake_platform::trace_lines_of("ssh/cfg-agent/error");
    ASSERT_EQ(traced.size(), 1U);
    EXPECT_EQ(traced[0].code, static_cast<uint32_t>(oper_trace_pid_file));
    EXPECT_THAT(traced[0].arguments, ElementsAre(GetParam().pid_file, "16"));
}

TEST_F(session_query_test, the_processes_are_found_by_their_titles) {
    std::vector<std::string> commands;
    call_faults::observe_commands([&commands](const std::string& command) { commands.push_back(command); });
    const collected servers(ssh_oper_collect_server_sessions);
    const collected clients(ssh_oper_collect_client_sessions);
    call_faults::observe_commands({});
    EXPECT_THAT(commands, ElementsAre("ps -ef | grep 'sshd:' | grep 'priv' | grep -v 'grep' | awk '{print $2}' "
                                      "> /tmp/norvo_ssh_oper_pid.txt",
                                      "ps -ef | grep '/pkg/bin/ssh_csm ' | grep -v 'grep' |awk '{print $2}' > "
                                      "/tmp/norvossh_client_oper_pid.txt"));
}

TEST_F(session_query_test, a_process_that_only_looks_like_a_server_is_skipped) {
    peers.answer(31, usual_snapshot(1));
    peers.start();
    list_processes(
        "root 31 1 0 0 ? 0 norvosshd: ann [priv]\n"
        "eve 32 1 0 0 ? 0 vi sshd:private\n"    // matches, but has no socket
        "root 33 1 0 0 ? 0 norvosshd: bob\n"    // the unprivileged process of a session
        "eve 34 1 0 0 ? 0 grep sshd: priv\n");  // a search for servers
    const collected found(ssh_oper_collect_server_sessions);
    EXPECT_THAT(found.ids(), ElementsAre(1U));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("/run/norvossh_oper32"));
    EXPECT_THAT(fake_platform::debug_texts(), Not(Contains("/run/norvossh_oper33")));
    EXPECT_THAT(fake_platform::debug_texts(), Not(Contains("/run/norvossh_oper34")));
}

TEST_F(session_query_test, a_program_with_a_longer_name_is_not_a_client) {
    list_processes("ann 31 1 0 0 ? 0 /pkg/bin/ssh_csm_keys -l\nann 32 1 0 0 ? 0 /pkg/bin/ssh_csm ann@192.0.2.7\n");
    const collected found(ssh_oper_collect_client_sessions);
    EXPECT_THAT(fake_platform::debug_texts(), Contains("/run/norvossh_oper32"));
    EXPECT_THAT(fake_platform::debug_texts(), Not(Contains("/run/norvossh_oper31")));
}

TEST_F(session_query_test, session_ids_are_ordered_as_unsigned_numbers) {
    session_snapshot one = {};
    session_snapshot other = {};
    other.session_id = no_session;
    EXPECT_EQ(ssh_oper_session_cmp(&one, &other), -1);
    EXPECT_EQ(ssh_oper_session_cmp(&other, &one), 1);
    EXPECT_EQ(ssh_oper_session_cmp(&one, &one), 0);
    one.session_id = 0x80000000;
    other.session_id = 0x7fffffff;
    EXPECT_EQ(ssh_oper_session_cmp(&one, &other), 1);
}
