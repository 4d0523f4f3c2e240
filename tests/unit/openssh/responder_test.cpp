#include "openssh/sessions/responder.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <thread>

#include "scratch.h"
#include "session_test.h"

using namespace openssh;
using namespace openssh_test;

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* client_words = "debug1: kex.c:choose_kex():929 (pid=1): kex: algorithm: ecdh-sha2-nistp256";
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
        const sockaddr_un address = address_of(folder_.file("reports"));
        reports_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(reports_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        // The service manager does the same, so that reports sent before the responder runs carry credentials.
        const int on = 1;
        ASSERT_EQ(setsockopt(reports_, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)), 0);
        options_.report_socket = reports_;
        options_.socket_prefix = folder_.file("oper");
        options_.state_folder = folder_.file("state");
        begin();
    }

    void TearDown() override {
        if (responder_.joinable()) {
            end();
        }
        end_process();
        close(reports_);
    }

    void begin() {
        ASSERT_EQ(pipe2(stop_, O_CLOEXEC), 0);
        options_.stop = stop_[0];
        process_info own;
        ASSERT_TRUE(read_process(getpid(), own));
        table_ = {.server_program = own.program, .client_program = "/none", .client_name = "none"};
        responder_ = std::thread([this] { began_ = run_responder(options_, table_); });
    }

    void end() {
        EXPECT_EQ(write(stop_[1], "x", 1), 1);
        responder_.join();
        close(stop_[0]);
        close(stop_[1]);
    }

    /// A process that sends a report on request.
    void start_process() {
        ASSERT_EQ(pipe2(orders_, O_CLOEXEC), 0);
        process_ = fork();
        if (process_ == 0) {
            close(orders_[1]);
            const sockaddr_un address = address_of(folder_.file("reports"));
            const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            for (char order = 0; read(orders_[0], &order, 1) == 1;) {
                const std::string report = report_of(client_words);
                sendto(sender, report.data(), report.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                       sizeof(address));
            }
            _exit(0);
        }
        close(orders_[0]);
        ASSERT_EQ(write(orders_[1], "x", 1), 1);
        wait_until([this] { return exists(socket_path()); });
    }

    void end_process() {
        if (process_ > 0) {
            kill(process_, SIGKILL);
            waitpid(process_, nullptr, 0);
            close(orders_[1]);
            process_ = 0;
        }
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
    int connect_to_session() const {
        const sockaddr_un address = address_of(socket_path());
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

    scratch_directory folder_;
    responder_options options_;
    session_table table_;
    std::thread responder_;
    bool began_ = false;
    int reports_ = -1;
    int stop_[2] = {-1, -1};
    int orders_[2] = {-1, -1};
    pid_t process_ = 0;
};

}  // namespace

TEST_F(session_responder, answers_with_one_snapshot) {
    start_process();
    session_snapshot answer = {};
    EXPECT_EQ(ask({0, 1, 0xdeadbeef}, &answer), 2320);
    EXPECT_EQ(answer.session_id, 1U);
    EXPECT_EQ(text_of_field(answer.kex_algorithm), "ecdh-sha2-nistp256");
    EXPECT_EQ(ask({0, 1, 0}), 2320) << "again";
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
    const std::string file = options_.state_folder + "/" + std::to_string(process_);
    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    ASSERT_EQ(stat(options_.state_folder.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0700U);
    wait_until([&] { return exists(file); });
    end_process();
    wait_until([&] { return !exists(path) && !exists(file); });
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

TEST_F(session_responder, reads_reports_sent_while_it_was_down) {
    end();
    const sockaddr_un address = address_of(folder_.file("reports"));
    ASSERT_EQ(pipe2(orders_, O_CLOEXEC), 0);
    process_ = fork();
    if (process_ == 0) {
        const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const std::string report = report_of(client_words);
        sendto(sender, report.data(), report.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        pause();
        _exit(0);
    }
    close(orders_[0]);
    std::this_thread::sleep_for(milliseconds(20));
    begin();
    wait_until([this] { return ask({0, 1, 0}) == 2320; });
}

TEST_F(session_responder, removes_leftovers_of_a_killed_responder) {
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

TEST_F(session_responder, drops_descriptors_sent_with_a_report) {
    start_process();
    const auto open_descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    const auto before = open_descriptors();
    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = address_of(folder_.file("reports"));
    for (int i = 0; i < 20; ++i) {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        char byte = 'x';
        iovec place = {.iov_base = &byte, .iov_len = 1};
        msghdr message = {};
        message.msg_name = const_cast<sockaddr_un*>(&address);
        message.msg_namelen = sizeof(address);
        message.msg_iov = &place;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &sender, sizeof(sender));
        EXPECT_EQ(sendmsg(sender, &message, 0), 1);
    }
    close(sender);
    EXPECT_EQ(ask({0, 1, 0}), 2320);
    wait_until([&] { return open_descriptors() == before; });
}

TEST_F(session_responder, does_not_start_without_a_folder_for_its_files) {
    end();
    options_.state_folder = folder_.file("missing/state");
    testing::internal::CaptureStderr();
    begin();
    responder_.join();
    EXPECT_FALSE(began_);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("cannot create"), std::string::npos);
}
