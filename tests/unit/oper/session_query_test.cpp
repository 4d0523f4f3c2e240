#include "oper/session_query.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "../agent_test.h"
#include "call_faults.h"
#include "core/debug.h"

namespace {

/// A process that answers one query on its socket, or keeps silent.
class peer {
  public:
    peer(int pid, std::string answer, bool silent = false)
        : path_("/run/norvossh_oper" + std::to_string(pid)), answer_(std::move(answer)) {
        listener_ = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr*>(&address),
                       static_cast<socklen_t>(sizeof address.sun_family + path_.size())),
                  0);
        listen(listener_, 1);
        if (!silent) {
            thread_ = std::thread([this] { serve(); });
        }
    }
    ~peer() {
        if (thread_.joinable()) {
            thread_.join();
        }
        close(listener_);
        unlink(path_.c_str());
    }
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;

    std::string request;

  private:
    void serve() {
        const int connection = accept(listener_, nullptr, nullptr);
        char received[64];
        const ssize_t size = ::read(connection, received, sizeof received);
        request.assign(received, size > 0 ? static_cast<size_t>(size) : 0);
        EXPECT_EQ(::write(connection, answer_.data(), answer_.size()), static_cast<ssize_t>(answer_.size()));
        close(connection);
    }

    std::string path_;
    std::string answer_;
    int listener_;
    std::thread thread_;
};

std::string snapshot_of(uint32_t session_id) {
    session_snapshot snapshot = {};
    snapshot.session_id = session_id;
    return {reinterpret_cast<const char*>(&snapshot), sizeof snapshot};
}

class session_query_test : public agent_test {
  protected:
    session_query_test() {
        fake_platform::preset_debug_flag(debug_cfg_agent, true);
        stub_commands::install_command("ps");
    }

    static void list_processes(const std::string& lines) { stub_commands::set_output("ps -ef", lines); }
};

}  // namespace

TEST_F(session_query_test, a_server_answers_with_a_whole_snapshot) {
    peer server_process(7, snapshot_of(42));
    session_snapshot snapshot = {};
    EXPECT_EQ(connectToSSHDaemon(&snapshot, 7), 0);
    EXPECT_EQ(snapshot.session_id, 42U);
    EXPECT_TRUE(fake_platform::debugged("/run/norvossh_oper7"));
    EXPECT_TRUE(fake_platform::debugged("connected to monitor process"));
    EXPECT_TRUE(
        fake_platform::debugged("connectToSSHDaemon, data received sessionid:=42, length:=2320 open-channels:=0"));
}

TEST_F(session_query_test, the_request_has_twelve_bytes) {
    session_snapshot snapshot = {};
    std::string request;
    {
        peer server_process(7, snapshot_of(1));
        EXPECT_EQ(connectToSSHDaemon(&snapshot, 7), 0);
        while (server_process.request.empty()) {
            usleep(1000);
        }
        request = server_process.request;
    }
    EXPECT_EQ(request.substr(0, 8), std::string("\0\0\0\0\1\0\0\0", 8));
    EXPECT_EQ(request.size(), 12U);
}

TEST_F(session_query_test, a_server_answer_of_another_length_is_none) {
    session_snapshot snapshot = {};
    for (const size_t size : {size_t{100}, size_t{2319}, size_t{2321}}) {
        peer server_process(7, std::string(size, 'x'));
        EXPECT_EQ(connectToSSHDaemon(&snapshot, 7), -1) << size;
    }
}

TEST_F(session_query_test, a_short_client_answer_is_taken) {
    session_snapshot snapshot = {};
    peer client_process(8, snapshot_of(5).substr(0, 100));
    EXPECT_EQ(connectToSSHClient(&snapshot, 8), 0);
    EXPECT_EQ(snapshot.session_id, 5U);
    EXPECT_TRUE(fake_platform::debugged("connected to ssh client process"));
}

TEST_F(session_query_test, a_silent_peer_leaves_an_empty_mark) {
    session_snapshot snapshot = {};
    peer silent(9, "", true);
    EXPECT_EQ(connectToSSHDaemon(&snapshot, 9), 0);
    EXPECT_EQ(snapshot.session_id, no_session);
    EXPECT_TRUE(fake_platform::debugged("No data from SSH server within timeout"));
    EXPECT_EQ(connectToSSHClient(&snapshot, 9), 0);
    EXPECT_TRUE(fake_platform::debugged("No data from SSH client within timeout"));
}

TEST_F(session_query_test, a_peer_that_is_not_there_is_a_failure) {
    session_snapshot snapshot = {};
    EXPECT_EQ(connectToSSHDaemon(&snapshot, 4711), -1);
    EXPECT_TRUE(fake_platform::debugged("Error:=No such file or directory(0x2), client socket connection failed"));
}

TEST_F(session_query_test, the_first_socket_option_that_fails_ends_the_query) {
    session_snapshot snapshot = {};
    call_faults::fail_call("setsockopt", ENOMEM);
    EXPECT_EQ(connectToSSHDaemon(&snapshot, 7), -1);
    EXPECT_EQ(call_faults::count_calls("setsockopt"), 1U);
    EXPECT_TRUE(fake_platform::debugged("Error:=Cannot allocate memory(0xc), Option:=20, socket option set failed"));
}

TEST_F(session_query_test, collects_all_servers_in_the_order_of_their_sessions) {
    list_processes(
        "root 31 1 0 0 ? 0 norvosshd: ann [priv]\nroot 32 1 0 0 ? 0 norvosshd: bob [priv]\n"
        "root 33 1 0 0 ? 0 norvosshd: eve [priv]\nroot 34 1 0 0 ? 0 norvosshd: eve\n");
    peer ann(31, snapshot_of(900));
    peer bob(32, "short");
    peer eve(33, snapshot_of(7));
    uint32_t count = 9;
    session_snapshot* snapshots = nullptr;
    EXPECT_EQ(ssh_oper_collect_server_sessions(&count, &snapshots), 0);
    ASSERT_EQ(count, 2U);
    EXPECT_EQ(snapshots[0].session_id, 7U);
    EXPECT_EQ(snapshots[1].session_id, 900U);
    EXPECT_FALSE(path_exists("/tmp/norvo_ssh_oper_pid.txt"));
    free(snapshots);
}

TEST_F(session_query_test, no_processes_give_no_snapshots) {
    list_processes("");
    uint32_t count = 9;
    session_snapshot* snapshots = nullptr;
    EXPECT_EQ(ssh_oper_collect_client_sessions(&count, &snapshots), 0);
    EXPECT_EQ(count, 0U);
    free(snapshots);
}

TEST_F(session_query_test, a_listing_that_fails_has_set_its_outputs) {
    call_faults::answer_command("ps -ef", 256, ECHILD);
    uint32_t count = 9;
    auto* snapshots = reinterpret_cast<session_snapshot*>(1);
    EXPECT_EQ(ssh_oper_collect_server_sessions(&count, &snapshots), ECHILD);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(snapshots, nullptr);
    EXPECT_TRUE(fake_platform::debugged("Error:=No child processes(0xa), cannot find running monitor processess"));
}

TEST_F(session_query_test, empty_elements_sort_last) {
    session_snapshot one = {};
    session_snapshot other = {};
    other.session_id = no_session;
    EXPECT_EQ(ssh_oper_session_cmp(&one, &other), -1);
    EXPECT_EQ(ssh_oper_session_cmp(&other, &one), 1);
    EXPECT_EQ(ssh_oper_session_cmp(&one, &one), 0);
}
