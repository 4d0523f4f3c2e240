#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <csignal>
#include <cstring>

#include "common/session_list.h"
#include "linux/control/session_ending.h"
#include "linux/control/session_listing.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/platform_test_support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char list_path[] = "/tmp/session_list.sock";

/// The responder, which answers when a test says so.
class listening_responder {
  public:
    listening_responder() {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, list_path);
        unlink(list_path);
        listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
    }
    ~listening_responder() { close(listener_); }
    listening_responder(const listening_responder&) = delete;
    listening_responder& operator=(const listening_responder&) = delete;

    /// Answers the client that has waited longest. Returns false if there is none.
    bool answer(const std::vector<session_list_row>& rows, const session_list_head* another_head = nullptr) {
        session_list_head head = {.magic = session_list_magic,
                                  .row_size = sizeof(session_list_row),
                                  .count = static_cast<uint32_t>(rows.size())};
        const int file = memfd_create("rows", MFD_CLOEXEC);
        const size_t size = rows.size() * sizeof(session_list_row);
        EXPECT_EQ(write(file, rows.data(), size), static_cast<ssize_t>(size));
        const bool is_sent = send_head(another_head != nullptr ? *another_head : head, file);
        close(file);
        return is_sent;
    }

    bool hang_up() {
        const int client = accept(listener_, nullptr, nullptr);
        close(client);
        return client >= 0;
    }

  private:
    bool send_head(session_list_head head, int file) const {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        iovec text = {.iov_base = &head, .iov_len = sizeof(head)};
        msghdr message = {};
        message.msg_iov = &text;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr* passed = CMSG_FIRSTHDR(&message);
        passed->cmsg_level = SOL_SOCKET;
        passed->cmsg_type = SCM_RIGHTS;
        passed->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(passed), &file, sizeof(file));
        const int client = accept(listener_, nullptr, nullptr);
        const bool is_sent = sendmsg(client, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof(head));
        close(client);
        return is_sent;
    }

    int listener_ = -1;
};

template <size_t size>
void set_text(char (&field)[size], const char* text) {
    std::strncpy(field, text, size - 1);
}

session_list_row session_row(uint32_t id, const char* user, const char* vrf, pid_t pid, uint64_t start_time) {
    session_list_row row = {};
    row.session_id = id;
    row.state = session_list_established;
    row.pid = pid;
    row.start_time = start_time;
    row.since = 1'700'000'000;
    row.port = 40000;
    row.idle = session_list_no_idle_time;
    set_text(row.user, user);
    set_text(row.vrf, vrf);
    set_text(row.host, "10.0.0.7");
    set_text(row.method, "password");
    return row;
}

class control_session_calls_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        session_listing_reset(list_path, 30'000);
    }
    void TearDown() override {
        session_listing_reset();
        calls_test::TearDown();
    }

    /// The answer to a request that the responder answers with these rows.
    control_json ask_with(const std::string& request, const std::vector<session_list_row>& rows) {
        const control_json first = ask(request);
        if (!first.contains("next")) {
            return first;
        }
        EXPECT_TRUE(responder.answer(rows));
        return ask(control_json_text(first["next"]));
    }

    listening_responder responder;
};

// --- The list -------------------------------------------------------------------------------------------------------

TEST_F(control_session_calls_test, sessions_are_asked_for_again_until_the_list_is_there) {
    const std::string waiting = R"({"result":"done","next":{"call":"sessions","number":1}})";
    EXPECT_EQ(control_json_text(ask(R"({"call":"sessions"})")), waiting);
    EXPECT_EQ(control_json_text(ask(R"({"call":"sessions","number":1})")), waiting);
    ASSERT_TRUE(responder.answer({session_row(12, "operator", "red", 4711, 5)}));
    EXPECT_EQ(data(R"({"call":"sessions","number":1})"),
              R"([{"id":12,"state":"established","vrf":"red","user":"operator","address":"10.0.0.7","port":40000,)"
              R"("since":"2023-11-14T22:13:20Z","method":"password","key":null,"algorithms":null,"terminals":[],)"
              R"("idle":null,"pid":4711}])");
}

TEST_F(control_session_calls_test, callers_at_the_same_time_share_a_list) {
    EXPECT_EQ(ask(R"({"call":"sessions"})")["next"]["number"], 1);
    EXPECT_EQ(ask(R"({"call":"sessions"})")["next"]["number"], 1);
    ASSERT_TRUE(responder.answer({session_row(12, "operator", "red", 4711, 5)}));
    EXPECT_EQ(ask(R"({"call":"sessions","number":1})")["data"].size(), 1U);
    EXPECT_EQ(ask(R"({"call":"sessions","number":1})")["data"].size(), 1U);
    EXPECT_FALSE(responder.hang_up()) << "nobody else is waiting";
    EXPECT_EQ(ask(R"({"call":"sessions"})")["next"]["number"], 2) << "a later caller gets a new list";
}

TEST_F(control_session_calls_test, a_row_has_what_is_known) {
    session_list_row row = session_row(0, "", "", 4711, 5);
    row.state = session_list_authenticating;
    row.since = 0;
    row.port = 0;
    row.idle = 7;
    row.terminal_count = 1000;
    row.terminals[1] = 3;
    set_text(row.key_type, "ED25519");
    set_text(row.key_fingerprint, "SHA256:abc");
    set_text(row.kex, "curve25519-sha256");
    set_text(row.host_key, "ssh-ed25519");
    set_text(row.in_cipher, "aes128-ctr");
    std::memset(row.method, 'x', sizeof(row.method));
    const control_json session = ask_with(R"({"call":"sessions"})", {row})["data"].at(0);
    EXPECT_TRUE(session["id"].is_null() && session["user"].is_null() && session["vrf"].is_null());
    EXPECT_TRUE(session["since"].is_null() && session["port"].is_null());
    EXPECT_EQ(session["state"], "authenticating");
    EXPECT_EQ(session["idle"], 7);
    EXPECT_EQ(session["terminals"].size(), session_list_terminals);
    EXPECT_EQ(session["method"], std::string(sizeof(row.method) - 1, 'x'));
    EXPECT_EQ(control_json_text(session["key"]), R"({"type":"ED25519","fingerprint":"SHA256:abc"})");
    EXPECT_EQ(
        control_json_text(session["algorithms"]),
        R"({"key_exchange":"curve25519-sha256","host_key":"ssh-ed25519","cipher_in":"aes128-ctr","cipher_out":"",)"
        R"("mac_in":null,"mac_out":null})");
}

TEST_F(control_session_calls_test, a_thousand_sessions_are_one_list) {
    const std::vector<session_list_row> rows(1000, session_row(12, "operator", "red", 4711, 5));
    EXPECT_EQ(ask_with(R"({"call":"sessions"})", rows)["data"].size(), 1000U);
}

TEST_F(control_session_calls_test, a_responder_that_does_not_answer_is_named) {
    session_listing_reset(list_path, 0);
    EXPECT_EQ(message(R"({"call":"sessions"})"),
              "the sessions are not known: the service ssh_session_responder does not answer");
    session_listing_reset("/tmp/nobody.sock");
    EXPECT_EQ(
        message(R"({"call":"sessions"})"),
        "the sessions are not known: the service ssh_session_responder does not answer: No such file or directory");
    session_listing_reset(std::string(200, 'x'));
    EXPECT_EQ(result(R"({"call":"sessions"})"), "failed");
}

TEST_F(control_session_calls_test, an_answer_that_is_not_understood_is_a_failure) {
    const session_list_head older = {.magic = session_list_magic, .row_size = sizeof(session_list_row) - 8, .count = 0};
    const session_list_head longer = {.magic = session_list_magic, .row_size = sizeof(session_list_row), .count = 3};
    ask(R"({"call":"sessions"})");
    ASSERT_TRUE(responder.answer({}, &older));
    EXPECT_THAT(message(R"({"call":"sessions","number":1})"), HasSubstr("is of another version"));
    ask(R"({"call":"sessions"})");
    ASSERT_TRUE(responder.answer({}, &longer));
    EXPECT_EQ(result(R"({"call":"sessions","number":2})"), "failed");
    ask(R"({"call":"sessions"})");
    ASSERT_TRUE(responder.hang_up());
    EXPECT_EQ(result(R"({"call":"sessions","number":3})"), "failed");
}

// --- Ending sessions ------------------------------------------------------------------------------------------------

/// A process that stands in for sshd's monitor, with a child for its unprivileged process, whose child is a program that
/// leads a group.
class process_tree {
  public:
    explicit process_tree(bool ignores_requests = false) {
        int ready[2];
        EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
        monitor_ = fork();
        if (monitor_ == 0) {
            setsid();
            become_parent(ignores_requests, [&] {
                become_parent(ignores_requests, [&] {
                    setpgid(0, 0);
                    EXPECT_EQ(write(ready[1], "x", 1), 1);
                    pause();
                });
            });
        }
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        end_ = ready[0];
        start_time_ = read_start_time();
    }
    ~process_tree() {
        session_end(monitor_, start_time_, session_end_force::kill_all);
        waitpid(monitor_, nullptr, 0);
        close(end_);
    }
    process_tree(const process_tree&) = delete;
    process_tree& operator=(const process_tree&) = delete;

    pid_t monitor() const { return monitor_; }

    uint64_t start_time() const { return start_time_; }

    /// Waits until all its processes have ended, which hold the pipe open.
    bool has_ended() const {
        pollfd closed = {.fd = end_, .events = 0, .revents = 0};
        return poll(&closed, 1, 30'000) == 1 && (closed.revents & POLLHUP) != 0;
    }

    bool is_running() const {
        pollfd closed = {.fd = end_, .events = 0, .revents = 0};
        return poll(&closed, 1, 0) == 0;
    }

  private:
    uint64_t read_start_time() const {
        const std::string stat = platform_test::read_file("/proc/" + std::to_string(monitor_) + "/stat");
        std::istringstream words(stat.substr(stat.rfind(") ") + 2));
        std::string word;
        for (int index = 0; index < 20; ++index) {
            words >> word;
        }
        return std::stoull(word);
    }

    template <class action>
    [[noreturn]] static void become_parent(bool ignores_requests, action child) {
        if (ignores_requests) {
            std::signal(SIGTERM, SIG_IGN);
        }
        if (fork() == 0) {
            child();
            _exit(0);
        }
        for (;;) {
            pause();
        }
    }

    pid_t monitor_ = 0;
    uint64_t start_time_ = 0;
    int end_ = -1;
};

TEST_F(control_session_calls_test, a_session_ends_with_all_its_processes) {
    const process_tree session;
    EXPECT_FALSE(session_end(session.monitor(), session.start_time() + 1, session_end_force::kill_all))
        << "another process that has the same number";
    EXPECT_TRUE(session.is_running());
    EXPECT_TRUE(session_end(session.monitor(), session.start_time(), session_end_force::ask));
    EXPECT_TRUE(session.has_ended());
    waitpid(session.monitor(), nullptr, 0);
    EXPECT_FALSE(session_end(session.monitor(), 0, session_end_force::ask));
}

TEST_F(control_session_calls_test, a_session_that_does_not_end_is_killed) {
    const process_tree session(true);
    EXPECT_TRUE(session_end(session.monitor(), session.start_time(), session_end_force::ask));
    EXPECT_TRUE(session_end(session.monitor(), session.start_time(), session_end_force::kill_child));
    EXPECT_TRUE(session_end(session.monitor(), session.start_time(), session_end_force::kill_all));
    EXPECT_TRUE(session.has_ended());
}

TEST_F(control_session_calls_test, ending_is_logged_and_waits_until_the_sessions_are_gone) {
    const process_tree one;
    const process_tree other;
    const std::vector<session_list_row> rows = {session_row(12, "operator", "red", one.monitor(), one.start_time()),
                                                session_row(13, "else", "red", other.monitor(), other.start_time())};
    const control_json waiting = ask_with(R"({"call":"session_end","user":"operator"})", rows);
    EXPECT_TRUE(one.has_ended());
    EXPECT_TRUE(other.is_running());
    EXPECT_THAT(audit,
                ElementsAre("Control: uid:=1000, pid:=42, call:=session end, result:=done, session 12 of operator "
                            "from 10.0.0.7 port 40000 in VRF red, PID " +
                            std::to_string(one.monitor())));
    ASSERT_EQ(waiting["next"]["attempt"], 1);
    const control_json still = ask_with(control_json_text(waiting["next"]), rows);
    ASSERT_EQ(still["next"]["attempt"], 2);
    const control_json ended = ask_with(control_json_text(still["next"]), {rows[1]});
    EXPECT_EQ(control_json_text(ended), R"({"result":"done","data":[{"id":12,"vrf":"red","user":"operator","pid":)" +
                                            std::to_string(one.monitor()) + "}]}");
    EXPECT_EQ(audit.size(), 1U);
}

TEST_F(control_session_calls_test, a_later_session_of_the_same_user_is_left_alone) {
    const process_tree first;
    const process_tree later;
    const control_json waiting = ask_with(R"({"call":"session_end","vrf":"red"})",
                                          {session_row(12, "a", "red", first.monitor(), first.start_time())});
    control_json next = waiting["next"];
    next["attempt"] = 25;
    const control_json ended =
        ask_with(control_json_text(next), {session_row(13, "a", "red", later.monitor(), later.start_time())});
    EXPECT_EQ(ended["data"].size(), 1U);
    EXPECT_TRUE(later.is_running());
}

TEST_F(control_session_calls_test, what_does_not_end_is_killed_and_then_reported) {
    const process_tree session(true);
    const session_list_row row = session_row(12, "operator", "red", session.monitor(), session.start_time());
    control_json next = ask_with(R"({"call":"session_end","id":12})", {row})["next"];
    next["attempt"] = 15;
    EXPECT_EQ(ask_with(control_json_text(next), {row})["next"]["attempt"], 16);
    EXPECT_THAT(audit.back(), HasSubstr("result:=done, kill session 12 of operator"));
    next["attempt"] = 50;
    const control_json answer = ask_with(control_json_text(next), {row});
    EXPECT_EQ(answer["result"], "failed");
    EXPECT_THAT(answer["message"].get<std::string>(), HasSubstr("still running: session 12 of operator"));
    EXPECT_THAT(audit.back(), HasSubstr("result:=failed, session 12 of operator"));
    next["attempt"] = 25;
    audit.clear();
    ask_with(control_json_text(next), {row});
    EXPECT_TRUE(session.has_ended());
    EXPECT_EQ(audit.size(), 1U) << "a caller may begin with the kill";
}

TEST_F(control_session_calls_test, connections_without_a_login_are_ended_too) {
    const process_tree connection;
    session_list_row row = session_row(0, "", "red", connection.monitor(), connection.start_time());
    row.state = session_list_connecting;
    const std::string request = R"({"call":"session_end","pid":)" + std::to_string(connection.monitor()) + R"(})";
    ASSERT_TRUE(ask_with(request, {row}).contains("next"));
    EXPECT_TRUE(connection.has_ended());
    EXPECT_THAT(audit.back(), HasSubstr("connecting connection of unknown from 10.0.0.7"));
}

TEST_F(control_session_calls_test, a_request_selects_by_one_member) {
    const std::vector<session_list_row> rows = {session_row(0, "", "", 4711, 5)};
    for (const char* request : {R"({"call":"session_end"})", R"({"call":"session_end","id":0})",
                                R"({"call":"session_end","user":""})", R"({"call":"session_end","vrf":""})",
                                R"({"call":"session_end","id":1,"user":"a"})", R"({"call":"session_end","id":"1"})"}) {
        EXPECT_EQ(result(request), "usage") << request;
    }
    EXPECT_EQ(ask_with(R"({"call":"session_end","user":"a"})", rows)["message"], "there is no session of user a");
    EXPECT_EQ(ask_with(R"({"call":"session_end","vrf":"a"})", rows)["message"], "there is no session in VRF a");
    EXPECT_EQ(ask_with(R"({"call":"session_end","id":7})", rows)["message"], "there is no session with ID 7");
    EXPECT_EQ(ask_with(R"({"call":"session_end","pid":7})", rows)["result"], "no_data");
    EXPECT_TRUE(audit.empty());
}

}  // namespace
