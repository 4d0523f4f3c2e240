#include "openssh/reporter/recorder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <fstream>

#include "scratch.h"
#include "session_test.h"

using namespace openssh;
using namespace openssh_test;

namespace {

constexpr uid_t nobody = 65534;

std::vector<std::string> log_of(const std::string& name) {
    std::ifstream file(std::string(TEST_SOURCE_DIR) + "/openssh/golden/session_logs/" + name + ".log");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

log_line parsed(const std::string& written) {
    log_line line;
    EXPECT_TRUE(parse_log_line(written, line)) << written;
    return line;
}

/// Lines of the monitor's process, which also logs on behalf of the unprivileged one.
bool is_monitors(const std::string& written, const std::string& first) {
    const log_line line = parsed(written);
    return line.before_authentication || line.pid == parsed(first).pid;
}

template <class action>
void in_child(uid_t user, action what) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(seteuid(user) == 0 && what() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

std::string own_file() {
    process_stat own;
    read_own_stat(own);
    return std::string(session_file_folder) + "/" + session_name({.pid = getpid(), .start_time = own.start_time});
}

session_facts page_in(const std::string& path, size_t offset) {
    session_facts facts;
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    read_page(file, offset, facts);
    close(file);
    return facts;
}

class recorder_of_a_server : public testing::Test {
  protected:
    void SetUp() override { std::filesystem::create_directories("/run/ssh_cfg_agent"); }

    /// The monitor records its lines, and its child those of the user's process.
    void record(const std::string& name) {
        const std::vector<std::string> lines = log_of(name);
        for (const std::string& line : lines) {
            if (is_monitors(line, lines.front())) {
                EXPECT_EQ(record_server_line(parsed(line)), 0);
            }
        }
        in_child(nobody, [&] {
            for (const std::string& line : lines) {
                if (!is_monitors(line, lines.front()) && line.find("channel 1: free") == std::string::npos) {
                    record_server_line(parsed(line));
                }
            }
            return true;
        });
    }
};

}  // namespace

TEST_F(recorder_of_a_server, has_two_pages_for_a_users_session) {
    setenv(vrf_variable, "red", 1);
    record("server_key_terminal_sftp");
    const session_facts monitors = page_in(own_file(), monitors_page);
    EXPECT_STREQ(monitors.user, "operator");
    EXPECT_STREQ(monitors.method, "rsa-pubkey");
    EXPECT_EQ(monitors.state, session_established);
    EXPECT_EQ(monitors.pid, getpid());
    EXPECT_STREQ(monitors.login.vrf, "red");
    EXPECT_NE(monitors.login.time, 0U);
    EXPECT_NE(monitors.algorithms.kex[0], '\0');
    EXPECT_EQ(monitors.channels[0].state, channel_unused);
    const session_facts reported = page_in(own_file(), reported_page);
    EXPECT_NE(reported.channels[0].state, channel_unused);
    EXPECT_NE(reported.session_pid, getpid());
    EXPECT_NE(reported.session_pid, 0);
}

TEST_F(recorder_of_a_server, has_one_page_for_root_s_session) {
    const std::vector<std::string> lines = log_of("server_root");
    for (const std::string& line : lines) {
        if (line.find(": free") == std::string::npos) {
            record_server_line(parsed(line));
        }
    }
    const session_facts monitors = page_in(own_file(), monitors_page);
    EXPECT_STREQ(monitors.user, "root");
    EXPECT_NE(monitors.channels[0].state, channel_unused);
    EXPECT_EQ(monitors.session_pid, getpid());
    // A child of root's monitor does not report on the session before it runs the command.
    in_child(0, [&] {
        record_server_line(parsed(lines.back()));
        return true;
    });
    EXPECT_STREQ(page_in(own_file(), reported_page).user, "");
}

TEST_F(recorder_of_a_server, leaves_nothing_of_a_connection_without_a_login) {
    for (const std::string& line : log_of("server_refused")) {
        EXPECT_EQ(record_server_line(parsed(line)), 0);
    }
    EXPECT_FALSE(exists(own_file()));
}

TEST_F(recorder_of_a_server, removes_its_file_at_the_end_of_the_monitor_alone) {
    end_server_record();
    record("server_key_terminal_sftp");
    in_child(0, [] {
        end_server_record();
        return true;
    });
    EXPECT_TRUE(exists(own_file())) << "the end of a child";
    end_server_record();
    EXPECT_FALSE(exists(own_file()));
}

TEST_F(recorder_of_a_server, says_once_that_a_session_cannot_be_recorded) {
    std::ofstream(session_file_folder) << "not a folder";
    int failures = 0;
    for (const std::string& line : log_of("server_root")) {
        errno = EAGAIN;
        const int error = record_server_line(parsed(line));
        EXPECT_EQ(errno, EAGAIN);
        failures += error != 0 ? 1 : 0;
        EXPECT_TRUE(error == 0 || error == ENOTDIR) << error;
    }
    EXPECT_EQ(failures, 1);
}

TEST_F(recorder_of_a_server, ignores_a_line_with_characters_that_are_not_printable) {
    EXPECT_EQ(
        record_server_line(parsed("debug1: monitor.c:monitor_child_preauth():370 (pid=1): user \x1b[2J authenticated "
                                  "by privileged process")),
        0);
    EXPECT_FALSE(exists(own_file()));
}

TEST(recorder_of_a_client, shares_its_page_with_the_child_that_continues_the_session) {
    const std::vector<std::string> lines = log_of("client_password_terminal");
    const size_t half = lines.size() / 2;
    for (size_t i = 0; i < half; ++i) {
        EXPECT_EQ(record_client_line(parsed(lines[i])), 0);
    }
    ASSERT_TRUE(is_client_file(first_page_descriptor));
    session_facts facts;
    ASSERT_TRUE(read_page(first_page_descriptor, 0, facts));
    EXPECT_EQ(facts.pid, getpid());
    EXPECT_STREQ(facts.user, "operator");
    EXPECT_EQ(facts.state, session_authenticating);
    in_child(0, [&] {
        for (size_t i = half; i < lines.size(); ++i) {
            record_client_line(parsed(lines[i]));
        }
        return true;
    });
    const pid_t before = facts.pid;
    ASSERT_TRUE(read_page(first_page_descriptor, 0, facts));
    EXPECT_NE(facts.pid, before);
    EXPECT_EQ(facts.first_pid, before);
    EXPECT_STREQ(facts.user, "operator");
    EXPECT_STREQ(facts.method, "password");
    EXPECT_EQ(facts.state, session_established);
}
