#include "openssh/sessions/responder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "openssh/reporter/page_maker.h"
#include "scratch.h"
#include "session_test.h"

using namespace openssh;
using namespace openssh_test;

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds limit{20000};

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

/// A responder in a thread. This test program stands in for sshd, and a child process for a session.
class session_responder : public testing::Test {
  protected:
    void SetUp() override {
        options_.socket_prefix = folder_.file("oper");
        options_.totals_socket = folder_.file("totals");
        options_.list_socket = folder_.file("list");
        begin();
    }

    void TearDown() override {
        if (responder_.joinable()) {
            end();
        }
        end_process();
    }

    /// This program stands in for ssh if `is_client`.
    void begin(bool is_client = false) {
        ASSERT_EQ(pipe2(stop_, O_CLOEXEC), 0);
        options_.stop = stop_[0];
        process_info own;
        ASSERT_TRUE(read_process(getpid(), own));
        table_ = {.server_program = is_client ? "/none" : own.program,
                  .client_program = is_client ? own.program : "/none",
                  .client_name = own.name,
                  .page_folder = page_folder_,
                  .numbers = {.folder = number_folder_}};
        table_.processes.read = [](pid_t pid, process_info& process) {
            const bool is_read = read_process(pid, process);
            process.is_roots = true;
            return is_read;
        };
        responder_ = std::thread([this] { began_ = run_responder(options_, table_); });
    }

    void end() {
        EXPECT_EQ(write(stop_[1], "x", 1), 1);
        responder_.join();
        close(stop_[0]);
        close(stop_[1]);
    }

    void fork_process() {
        process_ = fork();
        if (process_ == 0) {
            pause();
            _exit(0);
        }
        process_info process;
        ASSERT_TRUE(read_process(process_, process));
        facts_ = facts_of_session(process_);
        facts_.start_time = process.start_time;
    }

    void fork_client() {
        int ready[2];
        ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
        process_ = fork();
        if (process_ == 0) {
            session_page* page = nullptr;
            if (make_client_page(page) == 0) {
                write_page(*page, facts_of_session(getpid()));
            }
            close(ready[1]);
            pause();
            _exit(0);
        }
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 0);
        close(ready[0]);
    }

    void make_pages() { ASSERT_EQ(make_server_pages(page_folder_.c_str(), facts_, session_pages_), 0); }

    /// A process with a session.
    void start_process() {
        wait_until([this] { return exists(options_.totals_socket); });
        fork_process();
        make_pages();
        wait_until([this] { return exists(socket_path()); });
    }

    void end_process() {
        if (process_ > 0) {
            kill(process_, SIGKILL);
            waitpid(process_, nullptr, 0);
            process_ = 0;
        }
    }

    std::string page_path() const {
        return page_folder_ + "/" + session_name({.pid = process_, .start_time = facts_.start_time});
    }

    std::string socket_path() const { return options_.socket_prefix + std::to_string(process_); }

    static void wait_until(const std::function<bool()>& condition) {
        const auto end = steady_clock::now() + limit;
        while (!condition()) {
            ASSERT_LT(steady_clock::now(), end);
            std::this_thread::sleep_for(milliseconds(2));
        }
    }

    /// -1 if nobody listens.
    int connect_to_session() const { return connect_to(socket_path()); }

    static int connect_to(const std::string& path) {
        const sockaddr_un address = address_of(path);
        const int asker = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        const timeval patience = {.tv_sec = 20, .tv_usec = 0};
        setsockopt(asker, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        if (connect(asker, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            close(asker);
            return -1;
        }
        return asker;
    }

    /// The length of the answer to a request of `words` 4-byte numbers; 0 if the connection was closed without one.
    ssize_t ask(const std::vector<uint32_t>& request, session_snapshot* answer = nullptr) const {
        session_snapshot place = {};
        const int asker = connect_to_session();
        if (asker < 0 || send(asker, request.data(), request.size() * sizeof(uint32_t), MSG_NOSIGNAL) < 0) {
            close(asker);
            return -1;
        }
        const ssize_t length = recv(asker, answer != nullptr ? answer : &place, sizeof(place), MSG_TRUNC);
        close(asker);
        return length;
    }

    /// "incoming outgoing".
    std::string totals() const {
        session_totals found;
        const int asker = connect_to(options_.totals_socket);
        const ssize_t length = recv(asker, &found, sizeof(found), MSG_TRUNC);
        close(asker);
        return length == static_cast<ssize_t>(sizeof(found))
                   ? std::to_string(found.incoming) + " " + std::to_string(found.outgoing)
                   : "none";
    }

    scratch_directory folder_;
    std::string page_folder_ = folder_.file("pages");
    std::string number_folder_ = folder_.file("numbers");
    responder_options options_;
    session_table table_;
    std::thread responder_;
    bool began_ = false;
    int stop_[2] = {-1, -1};
    pid_t process_ = 0;
    session_facts facts_;
    server_pages session_pages_;
};

}  // namespace

TEST_F(session_responder, answers_with_one_snapshot) {
    start_process();
    session_snapshot answer = {};
    EXPECT_EQ(ask({0, 1, 0xdeadbeef}, &answer), 2320);
    EXPECT_EQ(answer.session_id, 1U);
    EXPECT_EQ(text_of_field(answer.kex_algorithm), "ecdh-sha2-nistp256");
    facts_.channels[0] = {.state = channel_running, .id = 5, .type = connection_shell};
    write_page(*session_pages_.reported, facts_);
    EXPECT_EQ(ask({0, 1, 0}, &answer), 2320) << "again";
    EXPECT_EQ(answer.channel_id[1], 5U) << "what is known now";
}

/// Whoever asks a server expects 2320 bytes, so that no process can pass an outgoing session off as an incoming one.
TEST_F(session_responder, the_last_byte_of_an_outgoing_session_is_left_out) {
    end();
    begin(true);
    wait_until([this] { return exists(options_.totals_socket); });
    fork_client();
    EXPECT_EQ(totals(), "0 1");
    session_snapshot answer = {};
    EXPECT_EQ(ask({0, 1, 0}, &answer), 2319);
    EXPECT_EQ(text_of_field(answer.user_id), "operator");
    EXPECT_EQ(text_of_field(answer.kex_algorithm), "ecdh-sha2-nistp256");
}

TEST_F(session_responder, a_session_whose_process_alters_its_page_keeps_its_user) {
    start_process();
    session_facts forged = facts_;
    set_field(forged.user, "root");
    set_field(forged.algorithms.kex, "forged");
    std::memset(forged.algorithms.in_cipher, 'x', sizeof(forged.algorithms.in_cipher));
    forged.session_pid = 1;
    write_page(*session_pages_.reported, forged);
    session_snapshot answer = {};
    EXPECT_EQ(ask({0, 1, 0}, &answer), 2320);
    EXPECT_EQ(text_of_field(answer.user_id), "operator");
    EXPECT_EQ(text_of_field(answer.kex_algorithm), "ecdh-sha2-nistp256");
    EXPECT_EQ(answer.session_pid, 0U);
    std::memset(static_cast<void*>(session_pages_.reported), 0xff, session_page_size);
    EXPECT_EQ(ask({0, 1, 0}, &answer), 2320);
    EXPECT_EQ(text_of_field(answer.user_id), "operator");
}

TEST_F(session_responder, tells_how_many_sessions_there_are) {
    start_process();
    EXPECT_EQ(totals(), "1 0");
    EXPECT_EQ(totals(), "1 0") << "again";
    struct stat status = {};
    ASSERT_EQ(stat(options_.totals_socket.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    end_process();
    wait_until([this] { return totals() == "0 0"; });
}

TEST_F(session_responder, an_asker_of_totals_that_is_gone_does_no_harm) {
    start_process();
    for (int i = 0; i < 20; ++i) {
        close(connect_to(options_.totals_socket));
    }
    EXPECT_EQ(totals(), "1 0");
}

TEST_F(session_responder, says_that_it_works) {
    end();
    static std::atomic<int> times;
    static std::atomic<bool> is_ready;
    times = 0;
    is_ready = false;
    options_.report_alive = [](bool ready) {
        is_ready = is_ready || ready;
        ++times;
    };
    begin();
    wait_until([] { return is_ready && times > 2; });
}

TEST_F(session_responder, closes_the_connection_on_an_invalid_request) {
    start_process();
    for (const std::vector<uint32_t>& request : std::vector<std::vector<uint32_t>>{
             {}, {0}, {0, 1}, {0, 1, 2, 3}, {1, 1, 0}, {0, 2, 0}, std::vector<uint32_t>(1000)}) {
        EXPECT_EQ(ask(request), 0) << request.size();
    }
    EXPECT_EQ(ask({0, 1, 0}), 2320);
}

TEST_F(session_responder, answers_while_others_are_silent) {
    start_process();
    const int silent = connect_to_session();
    ASSERT_GE(silent, 0);
    EXPECT_EQ(ask({0, 1, 0}), 2320);
    char byte = 0;
    EXPECT_EQ(recv(silent, &byte, 1, 0), 0) << "is closed after the timeout";
    close(silent);
}

TEST_F(session_responder, survives_more_silent_clients_than_it_has_slots) {
    start_process();
    std::vector<int> silent;
    for (int i = 0; i < 200; ++i) {
        silent.push_back(connect_to_session());
    }
    wait_until([this] { return ask({0, 1, 0}) == 2320; });
    for (const int asker : silent) {
        close(asker);
    }
}

TEST_F(session_responder, sockets_and_files_belong_to_root_and_are_removed_with_the_process) {
    start_process();
    const std::string path = socket_path();
    const std::string file = page_path();
    const std::string number = number_folder_ + "/" + session_name({.pid = process_, .start_time = facts_.start_time});
    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    for (const std::string& folder : {page_folder_, number_folder_}) {
        ASSERT_EQ(stat(folder.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0700U);
    }
    EXPECT_TRUE(exists(file) && exists(number));
    end_process();
    wait_until([&] { return !exists(path) && !exists(file) && !exists(number); });
}

TEST_F(session_responder, restores_its_sessions_after_a_restart) {
    start_process();
    end();
    EXPECT_FALSE(exists(socket_path())) << "nothing answers in between";
    begin();
    wait_until([this] { return exists(socket_path()); });
    session_snapshot answer = {};
    EXPECT_EQ(ask({0, 1, 0}, &answer), 2320);
    EXPECT_EQ(text_of_field(answer.kex_algorithm), "ecdh-sha2-nistp256");
    EXPECT_EQ(answer.session_id, 1U);
}

TEST_F(session_responder, finds_sessions_that_began_while_it_was_down) {
    wait_until([this] { return exists(options_.totals_socket); });
    end();
    fork_process();
    make_pages();
    EXPECT_FALSE(exists(socket_path()));
    begin();
    wait_until([this] { return ask({0, 1, 0}) == 2320; });
}

TEST_F(session_responder, removes_files_of_sessions_that_ended_while_it_was_down) {
    start_process();
    const std::string file = page_path();
    end();
    end_process();
    EXPECT_TRUE(exists(file));
    begin();
    wait_until([&] { return !exists(file); });
}

TEST_F(session_responder, finds_all_sessions_after_more_events_than_the_kernel_keeps) {
    wait_until([this] { return exists(options_.totals_socket); });
    static std::atomic<bool> is_held;
    static std::atomic<bool> has_stopped;
    is_held = has_stopped = false;
    end();
    // Blocks the responder in its first keep-alive.
    options_.report_alive = [](bool) {
        while (is_held) {
            has_stopped = true;
            std::this_thread::sleep_for(milliseconds(1));
        }
    };
    is_held = true;
    begin();
    wait_until([] { return has_stopped.load(); });
    std::ifstream most("/proc/sys/fs/inotify/max_queued_events");
    int events = 0;
    ASSERT_TRUE(most >> events);
    for (int i = 0; i < events + 10; ++i) {
        folder_.write("pages/" + std::to_string(i % 2), "");
        unlink(folder_.file("pages/" + std::to_string(i % 2)).c_str());
    }
    fork_process();
    make_pages();
    is_held = false;
    wait_until([this] { return ask({0, 1, 0}) == 2320; });
}

TEST_F(session_responder, ends_when_its_folder_is_lost) {
    wait_until([this] { return exists(options_.totals_socket); });
    testing::internal::CaptureStderr();
    std::filesystem::remove_all(page_folder_);
    responder_.join();
    EXPECT_FALSE(began_);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("lost the folder"), std::string::npos);
    close(stop_[0]);
    close(stop_[1]);
}

TEST_F(session_responder, removes_leftovers_of_a_killed_responder) {
    wait_until([this] { return exists(options_.totals_socket); });
    end();
    const std::string stale = options_.socket_prefix + "12345";
    const std::string other = folder_.write("oper_is_not_a_socket", "");
    const sockaddr_un address = address_of(stale);
    const int left = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(left, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    close(left);
    begin();
    wait_until([&] { return !exists(stale); });
    EXPECT_TRUE(exists(other));
}

TEST_F(session_responder, does_not_start_without_a_folder_for_its_files) {
    end();
    page_folder_ = folder_.file("missing/pages");
    testing::internal::CaptureStderr();
    begin();
    responder_.join();
    EXPECT_FALSE(began_);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("cannot create"), std::string::npos);
}

TEST_F(session_responder, hands_out_the_list_of_sessions) {
    start_process();
    const int asker = connect_to(options_.list_socket);
    ASSERT_GE(asker, 0);
    session_list_head head = {};
    const int file = receive_list(asker, head);
    close(asker);
    ASSERT_GE(file, 0);
    ASSERT_GE(head.count, 1U);
    session_list_row row = {};
    EXPECT_EQ(pread(file, &row, sizeof(row), 0), static_cast<ssize_t>(sizeof(row)));
    close(file);
    EXPECT_EQ(row.pid, process_);
    EXPECT_STREQ(row.user, "operator");
    end();
    EXPECT_FALSE(exists(options_.list_socket));
}
