#include "openssh/sessions/process_info.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "openssh/reporter/connection.h"
#include "openssh/reporter/own_process.h"

using namespace openssh;

namespace {

/// A stat line with a name that imitates the fields after it.
std::string stat_line(const std::string& state, const std::string& terminal) {
    return "42 (a) S 1 (b) " + state + " 17 42 42 " + terminal +
           " -1 4194304 1 0 0 0 0 0 0 0 20 0 1 0 987654321 1 1 18446744073709551615";
}

/// A child that waits until it is killed.
class waiting_child {
  public:
    waiting_child() : pid_(fork()) {
        if (pid_ == 0) {
            pause();
            _exit(0);
        }
    }
    ~waiting_child() { end(); }
    waiting_child(const waiting_child&) = delete;
    waiting_child& operator=(const waiting_child&) = delete;

    void end() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = 0;
        }
    }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_;
};

}  // namespace

TEST(process_stat, is_parsed_from_the_end_of_the_name) {
    process_stat process;
    ASSERT_TRUE(parse_process_stat(stat_line("S", "34817"), process));
    EXPECT_EQ(process.parent, 17);
    EXPECT_EQ(process.start_time, 987654321U);
    EXPECT_EQ(process.terminal, 1U);
}

TEST(process_stat, distinguishes_pseudo_terminals) {
    process_stat process;
    ASSERT_TRUE(parse_process_stat(stat_line("S", "0"), process));
    EXPECT_EQ(process.terminal, no_terminal);
    ASSERT_TRUE(parse_process_stat(stat_line("S", "1025"), process));
    EXPECT_EQ(process.terminal, no_terminal) << "a serial line";
    ASSERT_TRUE(parse_process_stat(stat_line("S", std::to_string((137 << 8) | 3)), process));
    EXPECT_EQ(process.terminal, 259U) << "the second block of numbers";
}

TEST(process_stat, that_is_cut_short_is_refused) {
    process_stat process;
    ASSERT_TRUE(parse_process_stat(stat_line("Z", "0"), process));
    EXPECT_EQ(process.state, 'Z');
    EXPECT_FALSE(parse_process_stat("", process));
    EXPECT_FALSE(parse_process_stat("42 (a", process));
    const std::string whole = stat_line("S", "0");
    for (size_t size = 0; size < whole.find("987654321"); ++size) {
        EXPECT_FALSE(parse_process_stat(whole.substr(0, size), process)) << size;
    }
}

TEST(process_info, of_a_living_process) {
    const waiting_child child;
    process_info own;
    process_info process;
    ASSERT_TRUE(read_process(getpid(), own));
    ASSERT_TRUE(read_process(child.pid(), process));
    process_stat stat;
    ASSERT_TRUE(read_own_stat(stat));
    EXPECT_EQ(stat.start_time, own.start_time);
    EXPECT_EQ(process.user, getuid());
    EXPECT_EQ(process.is_roots, getuid() == 0);
    EXPECT_EQ(program_of_process(child.pid()), own.program);
    const std::vector<pid_t> all = list_processes();
    EXPECT_NE(std::find(all.begin(), all.end(), child.pid()), all.end());
    EXPECT_EQ(process.parent, getpid());
    EXPECT_GE(process.start_time, own.start_time);
    EXPECT_EQ(process.program, own.program);
    EXPECT_NE(process.program, "");
    EXPECT_NE(process.name, "");
}

TEST(process_info, distinguishes_roots_own_processes) {
    const auto users = [](const std::string& ids) {
        process_info process;
        return parse_process_users("Name:\tx\nUid:" + ids + "\nGid:\t5\t5\t5\t5\n", process)
                   ? std::to_string(process.user) + (process.is_roots ? " root" : "")
                   : "refused";
    };
    EXPECT_EQ(users("\t0\t0\t0\t0"), "0 root");
    EXPECT_EQ(users("\t1001\t0\t0\t0"), "1001") << "a program that only runs as root";
    EXPECT_EQ(users("\t0\t0\t1001\t0"), "0");
    EXPECT_EQ(users("\t0\t0\t0"), "refused");
    EXPECT_EQ(users("\t0\t0\t0\tx"), "refused");
    EXPECT_EQ(users(""), "refused");
}

TEST(process_info, reports_the_end_of_a_process) {
    waiting_child child;
    const pid_t pid = child.pid();
    const int descriptor = open_process(pid);
    ASSERT_GE(descriptor, 0);
    pollfd ended = {.fd = descriptor, .events = POLLIN, .revents = 0};
    EXPECT_EQ(poll(&ended, 1, 0), 0);
    child.end();
    EXPECT_EQ(poll(&ended, 1, 0), 1);
    process_info process;
    EXPECT_FALSE(read_process(pid, process));
    close(descriptor);
}

namespace {

/// Inspects a connection of this process, both as its own and as another process would.
void look_at_a_connection(int family, const std::string& expected) {
    const int listener = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_storage address = {};
    address.ss_family = static_cast<sa_family_t>(family);
    if (family == AF_INET6) {
        reinterpret_cast<sockaddr_in6&>(address).sin6_addr = in6addr_loopback;
    } else {
        reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    socklen_t size = sizeof(address);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(listener);
        GTEST_SKIP() << "this machine has no such loopback";
    }
    ASSERT_EQ(listen(listener, 1), 0);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    const int near_end = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(near_end, reinterpret_cast<sockaddr*>(&address), size), 0);
    const int far_end = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    close(listener);
    ASSERT_EQ(write(near_end, "12345", 5), 5);
    char buffer[5];
    ASSERT_EQ(recv(far_end, buffer, sizeof(buffer), MSG_WAITALL), 5);
    close(far_end);

    const int self = open_process(getpid());
    peer_address peer;
    byte_counters bytes;
    ASSERT_TRUE(look_at_own_connection(&peer, nullptr));
    EXPECT_EQ(peer.text, expected);
    ASSERT_TRUE(look_at_connection(self, getpid(), bytes));
    EXPECT_EQ(bytes.known, 1U);
    // The kernel counts the beginning and the end of a direction as one byte each.
    EXPECT_EQ(bytes.sent, 5U + 1U);
    EXPECT_EQ(bytes.received, 0U + 1U);
    close(self);
    close(near_end);
}

}  // namespace

TEST(process_info, finds_an_ipv4_connection) {
    look_at_a_connection(AF_INET, "127.0.0.1");
}

TEST(process_info, finds_an_ipv6_connection) {
    look_at_a_connection(AF_INET6, "::1");
}

TEST(process_info, of_a_process_without_a_connection_is_left_unchanged) {
    const waiting_child child;
    const int descriptor = open_process(child.pid());
    byte_counters bytes;
    EXPECT_FALSE(look_at_connection(descriptor, child.pid(), bytes));
    EXPECT_EQ(bytes.known, 0U);
    close(descriptor);
}
