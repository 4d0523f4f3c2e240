#include "openssh/wrapper/session_command.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

using namespace openssh;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Strings as arguments of execve().
class string_array {
  public:
    string_array(std::initializer_list<std::string> strings) : strings_(strings) {
        for (std::string& string : strings_) {
            pointers_.push_back(string.data());
        }
        pointers_.push_back(nullptr);
    }
    operator char* const*() const { return pointers_.data(); }

  private:
    std::vector<std::string> strings_;
    std::vector<char*> pointers_;
};

const string_array session_environment = {"HOME=/home/a", "SSH_CLIENT=192.0.2.1 40000 22"};

bool is_session(const char* path, const string_array& arguments) {
    return is_session_command(path, arguments, session_environment);
}

std::vector<std::string> words_of(char** strings) {
    std::vector<std::string> words;
    for (; *strings != nullptr; ++strings) {
        words.emplace_back(*strings);
    }
    return words;
}

/// A file in memory with this content.
int file_of(const std::string& bytes) {
    const int fd = memfd_create("test", 0);
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    return fd;
}

std::string count(char value) {
    return {value, '\0', '\0', '\0'};
}

/// The strings that are read belong to the process, as in the program.
session_command command;

bool is_refused(const std::string& bytes) {
    errno = 0;
    const int fd = file_of(bytes);
    const bool read = read_session_command(fd, command);
    const int error = errno;
    close(fd);
    return !read && error == EBADMSG;
}

}  // namespace

TEST(session_command, a_login_shell_and_a_command_are_sessions) {
    EXPECT_TRUE(is_session("/bin/bash", {"-bash"}));
    EXPECT_TRUE(is_session("/bin/bash", {"bash", "-c", "ls -l"}));
    EXPECT_TRUE(is_session("/usr/sbin/nologin", {"nologin", "-c", ""}));
}

TEST(session_command, other_programs_run_by_sshd_are_no_sessions) {
    EXPECT_FALSE(
        is_session("/usr/libexec/ssh_cfg_agent/authorized_keys", {"/usr/libexec/ssh_cfg_agent/authorized_keys", "a"}));
    EXPECT_FALSE(is_session("/sbin/unix_chkpwd", {"/sbin/unix_chkpwd", "a", "nullok"}));
    EXPECT_FALSE(is_session("/bin/bash", {"bash"}));
    EXPECT_FALSE(is_session("/bin/bash", {"-dash"}));
    EXPECT_FALSE(is_session("/bin/bash", {"-bash", "-c"}));
    EXPECT_FALSE(is_session("/bin/sh", {"sh", "-c"}));
    EXPECT_FALSE(is_session("/bin/sh", {"sh", "-c", "a", "b"}));
    EXPECT_FALSE(is_session("/bin/sh", {"/bin/sh", "-c", "a"}));
    EXPECT_FALSE(is_session("/bin/sh", {"sh", "-e", "a"}));
    EXPECT_FALSE(is_session("/bin/sh", {}));
}

TEST(session_command, without_a_client_there_is_no_session) {
    const string_array others = {"PATH=/bin", "SSH_CLIENTS=1", "XSSH_CLIENT=1"};
    EXPECT_FALSE(is_session_command("/bin/bash", string_array{"-bash"}, others));
    EXPECT_FALSE(is_session_command("/bin/bash", string_array{"-bash"}, nullptr));
    EXPECT_FALSE(is_session_command("/bin/bash", nullptr, session_environment));
    EXPECT_FALSE(is_session_command(nullptr, string_array{"-bash"}, session_environment));
}

TEST(session_command, arrives_unaltered) {
    const string_array arguments = {"bash", "-c", "printf '%s\n' \"a  b\" \xff\x01 $HOME; exit 3"};
    const string_array environment = {"SSH_CLIENT=1", "ODD.NAME=x", "EMPTY=", "no value", ""};
    const int fd = write_session_command("/bin/bash", arguments, environment);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(read_session_command(fd, command));
    EXPECT_STREQ(command.path, "/bin/bash");
    EXPECT_THAT(words_of(command.arguments),
                ElementsAre("bash", "-c", "printf '%s\n' \"a  b\" \xff\x01 $HOME; exit 3"));
    EXPECT_THAT(words_of(command.environment), ElementsAre("SSH_CLIENT=1", "ODD.NAME=x", "EMPTY=", "no value", ""));
    close(fd);
}

TEST(session_command, the_longest_command_that_the_kernel_accepts_arrives) {
    const std::string longest(128 * 1024 - 1, 'x');
    const int fd = write_session_command("/bin/bash", string_array{"bash", "-c", longest}, string_array{});
    ASSERT_TRUE(read_session_command(fd, command));
    EXPECT_EQ(command.arguments[2], longest);
    EXPECT_THAT(words_of(command.environment), IsEmpty());
    close(fd);
}

TEST(session_command, a_damaged_file_is_refused) {
    const std::string text("/bin/sh\0sh\0A=1\0", 15);
    EXPECT_FALSE(is_refused(count(1) + count(1) + text)) << "the bytes that the next cases vary are valid";
    const char* const path = command.path;
    EXPECT_TRUE(is_refused(""));
    EXPECT_TRUE(is_refused(count(1)));
    EXPECT_TRUE(is_refused(count(0) + count(0)));
    EXPECT_TRUE(is_refused(count(0) + count(2) + text)) << "a program without a name";
    EXPECT_TRUE(is_refused(count(2) + count(1) + text)) << "a string is missing";
    EXPECT_TRUE(is_refused(count(1) + count(0) + text)) << "there is one string too many";
    EXPECT_TRUE(is_refused(count(1) + count(1) + text.substr(0, 14))) << "the last zero byte is missing";
    EXPECT_TRUE(is_refused("\xff\xff\xff\xff\xff\xff\xff\xff" + text)) << "more strings than bytes";
    EXPECT_TRUE(is_refused(std::string(9 * 1024 * 1024, '\0'))) << "longer than execve() allows";
    EXPECT_EQ(command.path, path) << "a refusal leaves the outputs alone";
}

TEST(session_command, a_missing_file_differs_from_a_bad_one) {
    EXPECT_FALSE(read_session_command(-1, command));
    EXPECT_EQ(errno, EBADF);
}

TEST(session_command, confines_the_netconf_port_to_its_subsystem) {
    EXPECT_TRUE(is_on_netconf_port(string_array{"A=1", "SSH_CONNECTION=192.0.2.1 40000 192.0.2.2 830"}));
    EXPECT_TRUE(is_on_netconf_port(string_array{"SSH_CONNECTION=2001:db8::1 40000 2001:db8::2 830"}));
    EXPECT_FALSE(is_on_netconf_port(string_array{"SSH_CONNECTION=192.0.2.1 830 192.0.2.2 22"}));
    EXPECT_FALSE(is_on_netconf_port(string_array{"SSH_CONNECTION=192.0.2.1 40000 192.0.2.2 1830"}));
    EXPECT_FALSE(is_on_netconf_port(string_array{"SSH_CONNECTIONS=192.0.2.1 40000 192.0.2.2 830"}));
    EXPECT_FALSE(is_on_netconf_port(string_array{}));
    EXPECT_TRUE(is_netconf_command(string_array{"bash", "-c", "/pkg/bin/netconf_sshd_proxy -i 0 -o 1"}));
    EXPECT_FALSE(is_netconf_command(string_array{"bash", "-c", "/pkg/bin/netconf_sshd_proxy -i 0 -o 1; id"}));
    EXPECT_FALSE(is_netconf_command(string_array{"-bash"}));
}

TEST(session_command, cannot_be_changed_once_written) {
    const int fd = write_session_command("/bin/bash", string_array{"-bash"}, session_environment);
    EXPECT_EQ(fcntl(fd, F_GET_SEALS), F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE);
    EXPECT_EQ(pwrite(fd, "x", 1, 0), -1);
    EXPECT_EQ(ftruncate(fd, 0), -1);
    close(fd);
}
