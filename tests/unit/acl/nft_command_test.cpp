#include "acl/nft_command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "files.h"
#include "usage.h"

namespace {

constexpr char standard_error[] = "/tmp/standard_error";

/// Redirects the standard error of this process to a file during its lifetime.
class caught_standard_error {
  public:
    caught_standard_error() : saved_(dup(STDERR_FILENO)) {
        const int file = creat(standard_error, 0644);
        dup2(file, STDERR_FILENO);
        close(file);
    }
    ~caught_standard_error() {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    caught_standard_error(const caught_standard_error&) = delete;
    caught_standard_error& operator=(const caught_standard_error&) = delete;

  private:
    int saved_;
};

/// The file behind a descriptor, or -1.
ino_t file_behind(int fd) {
    struct stat status = {};
    return fstat(fd, &status) == 0 ? status.st_ino : static_cast<ino_t>(-1);
}

/// Opens /dev/null until no descriptor is left.
void use_up_descriptors() {
    while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
    }
}

std::string shortened(const char* text) {
    char message[200];
    snprintf(message, sizeof message, "%s", text);
    shorten_nft_message(message);
    return message;
}

}  // namespace

TEST(nft_command_test, keeps_and_passes_on_the_error_messages) {
    char message[100];
    {
        const caught_standard_error caught;
        EXPECT_NE(run_nft_command("echo one >&2; echo two >&2; exit 3", message, sizeof message), 0);
    }
    EXPECT_STREQ(message, "one\ntwo\n");
    EXPECT_EQ(read_file(standard_error), "one\ntwo\n");
}

TEST(nft_command_test, a_silent_command_leaves_no_message) {
    char message[100] = "before";
    EXPECT_EQ(run_nft_command("true", message, sizeof message), 0);
    EXPECT_STREQ(message, "");
}

TEST(nft_command_test, a_long_message_is_truncated) {
    char message[10];
    const caught_standard_error caught;
    run_nft_command("echo 0123456789abcdef >&2", message, sizeof message);
    EXPECT_STREQ(message, "012345678");
}

TEST(nft_command_test, the_shortest_message_is_kept) {
    char message[10] = "before";
    {
        const caught_standard_error caught;
        run_nft_command("printf x >&2", message, sizeof message);
    }
    EXPECT_STREQ(message, "x");
    EXPECT_EQ(read_file(standard_error), "x");
}

TEST(nft_command_test, leaves_errno_alone) {
    char message[100];
    const caught_standard_error caught;
    for (const int before : {0, EEXIST}) {
        errno = before;
        run_nft_command("echo message >&2; false", message, sizeof message);
        EXPECT_EQ(errno, before);
    }
}

TEST(nft_command_test, leaves_errno_alone_if_the_message_cannot_be_passed_on) {
    char message[100];
    const int saved = dup(STDERR_FILENO);
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    dup2(full, STDERR_FILENO);
    errno = EEXIST;
    run_nft_command("echo message >&2; false", message, sizeof message);
    const int after = errno;
    dup2(saved, STDERR_FILENO);
    EXPECT_EQ(after, EEXIST);
    EXPECT_STREQ(message, "message\n");
}

TEST(nft_command_test, closes_its_descriptors) {
    char message[100];
    const size_t before = open_descriptors();
    run_nft_command("true", message, sizeof message);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(nft_command_test, works_in_a_process_without_standard_input) {
    char message[100];
    const caught_standard_error caught;
    close(STDIN_FILENO);
    run_nft_command("echo message >&2", message, sizeof message);
    EXPECT_STREQ(message, "message\n");
    EXPECT_EQ(file_behind(STDIN_FILENO), static_cast<ino_t>(-1));
}

// Then the messages are not kept. The command itself has descriptors again, because those of this process are closed on
// exec.
TEST(nft_command_test, runs_the_command_when_too_few_descriptors_are_left) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit few = {20, limit.rlim_max};
    for (const int left : {0, 1}) {
        setrlimit(RLIMIT_NOFILE, &few);
        use_up_descriptors();
        for (int fd = 19; fd > 19 - left; fd--) {
            close(fd);
        }
        char message[100] = "before";
        const ino_t standard_input = file_behind(STDIN_FILENO);
        const ino_t standard_error = file_behind(STDERR_FILENO);
        errno = EEXIST;
        const int result = run_nft_command("exit 0", message, sizeof message);
        const int after = errno;
        EXPECT_EQ(file_behind(STDIN_FILENO), standard_input) << left;
        EXPECT_EQ(file_behind(STDERR_FILENO), standard_error) << left;
        for (int fd = 19; fd > 19 - left; fd--) {
            EXPECT_EQ(file_behind(fd), static_cast<ino_t>(-1)) << fd;
        }
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(result, 0) << left;
        EXPECT_EQ(after, EEXIST) << left;
        EXPECT_STREQ(message, "") << left;
    }
}

TEST(nft_command_test, a_message_is_reduced_to_one_line) {
    EXPECT_EQ(shortened("f.nft:7:3-9: Error: wrong\n    ip6 saddr ::\n    ^^^\nf.nft:8:1-2: Error: more\n"),
              "f.nft:7:3-9: Error: wrong ip6 saddr ::");
    EXPECT_EQ(shortened("one line"), "one line");
    EXPECT_EQ(shortened("one line\n"), "one line");
    EXPECT_EQ(shortened("one line\n\n\n"), "one line");
    EXPECT_EQ(shortened(""), "");
}
