#include "openssh/reporter/login_events.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>

#include "openssh/reporter/login_event.h"

using namespace openssh;

namespace {

int bound_socket(const char* path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string(path).copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    return fd;
}

std::string received(int fd) {
    char text[4096];
    const ssize_t length = recv(fd, text, sizeof(text), MSG_DONTWAIT);
    return length < 0 ? std::string() : std::string(text, static_cast<size_t>(length));
}

std::map<std::string, std::string> fields_of(const std::string& entry) {
    std::map<std::string, std::string> fields;
    std::istringstream lines(entry);
    for (std::string line; std::getline(lines, line);) {
        const size_t sign = line.find('=');
        EXPECT_NE(sign, std::string::npos) << line;
        fields[line.substr(0, sign)] = line.substr(sign + 1);
    }
    return fields;
}

void log_and_end(const std::string& lines) {
    begin_login_events();
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);) {
        log_line parsed;
        if (line.starts_with("limit ")) {
            note_time_limit(static_cast<unsigned>(std::stoul(line.substr(6))));
        } else if (line == "wait") {
            usleep(1100000);
        } else if (line == "child") {
            const pid_t child = fork();
            if (child == 0) {
                end_login_events();
                _exit(0);
            }
            waitpid(child, nullptr, 0);
        } else if (parse_log_line(line, parsed)) {
            follow_login_line(parsed);
        } else {
            follow_ordinary_line(line);
        }
    }
    end_login_events();
    end_login_events();
}

/// A server's connection, for which sshd would have started a process.
class login_events : public testing::Test {
  protected:
    void SetUp() override {
        journal = bound_socket("/run/systemd/journal/socket");
        agent = bound_socket(login_event_socket);
        setenv("SSH_CFG_VRF", "red", 1);
    }
    void TearDown() override {
        close(journal);
        close(agent);
    }

    /// Lets a process with a connection log lines and end. Returns what it sends to the journal first.
    std::string event_of(const std::string& lines) {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), size), 0);
        EXPECT_EQ(listen(listener, 1), 0);
        EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
        const int client = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        size = sizeof(address);
        getsockname(client, reinterpret_cast<sockaddr*>(&address), &size);
        port = ntohs(address.sin_port);
        const int server = accept(listener, nullptr, nullptr);
        close(listener);
        const pid_t child = fork();
        if (child == 0) {
            close(client);
            log_and_end(lines);
            _exit(0);
        }
        close(server);
        int status = 0;
        waitpid(child, &status, 0);
        close(client);
        EXPECT_EQ(status, 0);
        const std::string event = received(journal);
        EXPECT_EQ(received(agent), event);
        return event;
    }

    int journal = -1;
    int agent = -1;
    unsigned port = 0;
};

}  // namespace

TEST_F(login_events, contain_what_is_known_of_a_failed_login) {
    const std::string event = event_of("Failed publickey for operator from 127.0.0.1 port 5 ssh2: RSA SHA256:a");
    const std::string source = std::to_string(port);
    auto fields = fields_of(event);
    EXPECT_FALSE(fields["SYSLOG_PID"].empty());
    EXPECT_EQ(event, "MESSAGE=Login failed in VRF red from 127.0.0.1 port " + source +
                         " with publickey: key not accepted (user operator)\n"
                         "PRIORITY=5\nSYSLOG_FACILITY=4\nSYSLOG_IDENTIFIER=norvosshd-red\nSYSLOG_PID=" +
                         fields["SYSLOG_PID"] +
                         "\nOBJECT_SYSTEMD_UNIT=sshd_service_red.service\n"
                         "MESSAGE_ID=57bf9bef7e7f4f33af0ee093e0c74180\nSSH_CFG_EVENT=login-failed\nSSH_CFG_VRF=red\n"
                         "SSH_CFG_USER=operator\nSSH_CFG_SOURCE=127.0.0.1\nSSH_CFG_PORT=" +
                         source +
                         "\nSSH_CFG_METHOD=publickey\nSSH_CFG_REASON=key not accepted\nSSH_CFG_KEY=RSA SHA256:a\n"
                         "SSH_CFG_REFUSED=1\n");
    EXPECT_EQ(received(journal), "");
}

TEST_F(login_events, tell_login_and_logout) {
    const std::string login = event_of(
        "Accepted publickey for operator from 127.0.0.1 port 5 ssh2: RSA SHA256:a\n"
        "debug1: monitor.c:monitor_child_preauth():370 (pid=5): user operator authenticated by privileged process\n"
        "Invalid user later from 6.6.6.6 port 1");
    auto fields = fields_of(login);
    EXPECT_EQ(fields["SSH_CFG_EVENT"], "login");
    EXPECT_EQ(fields["SSH_CFG_METHOD"], "publickey");
    EXPECT_EQ(fields["SSH_CFG_KEY"], "RSA SHA256:a");
    EXPECT_EQ(fields["PRIORITY"], "6");
    fields = fields_of(received(journal));
    EXPECT_EQ(fields["SSH_CFG_EVENT"], "logout");
    EXPECT_EQ(fields["SSH_CFG_USER"], "operator");
    EXPECT_EQ(fields["SSH_CFG_DURATION"], "0");
}

TEST_F(login_events, tell_that_the_time_was_over_although_nothing_is_logged) {
    auto fields = fields_of(event_of("limit 1\nwait"));
    EXPECT_EQ(fields["SSH_CFG_REASON"], "login grace time over");
    EXPECT_EQ(fields.count("SSH_CFG_USER"), 0U);
    EXPECT_EQ(event_of("limit 100"), "");
    EXPECT_EQ(event_of("limit 1\nlimit 0\nwait"), "");
}

TEST_F(login_events, come_from_the_connections_own_process_only) {
    follow_ordinary_line("Invalid user x from 127.0.0.1 port 5");
    end_login_events();
    EXPECT_EQ(received(journal), "");
    EXPECT_NE(event_of("Invalid user x from 127.0.0.1 port 5\nchild"), "");
    EXPECT_EQ(received(journal), "");
}

TEST_F(login_events, have_no_line_breaks_and_fit) {
    const std::string event = event_of("Invalid user a\x1b[31m\tb\xff from 127.0.0.1 port 5");
    EXPECT_EQ(fields_of(event)["SSH_CFG_USER"], "a?[31m?b?");
    const std::string long_event = event_of(
        "Unable to negotiate with 127.0.0.1 port 5: no matching cipher found. Their offer: " + std::string(10000, 'x'));
    EXPECT_LT(long_event.size(), size_t{login_event_size_max});
    EXPECT_EQ(fields_of(long_event)["SSH_CFG_REASON"], "no common cipher");
}

TEST_F(login_events, are_not_needed_by_anybody) {
    std::filesystem::remove("/run/systemd/journal/socket");
    std::filesystem::remove(login_event_socket);
    EXPECT_EQ(event_of("Invalid user x from 127.0.0.1 port 5"), "");
}

TEST(login_events_arguments, tell_a_connections_process) {
    using namespace std::string_view_literals;
    EXPECT_TRUE(is_for_connection("norvosshd\0-D\0-f\0file\0-R\0"sv));
    EXPECT_FALSE(is_for_connection("norvosshd\0-D\0-f\0-Rfile\0"sv));
    EXPECT_FALSE(is_for_connection(""));
}
