#include "acl/nft_command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "files.h"

namespace {

constexpr char standard_error[] = "/tmp/standard_error";

/// Leads the process's own standard error into a file while it lives.
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

std::string shortened(const char* text) {
    char words[200];
    snprintf(words, sizeof words, "%s", text);
    shorten_complaint(words);
    return words;
}

}  // namespace

TEST(command_words_test, hears_what_a_command_says_and_passes_it_on) {
    char words[100];
    {
        const caught_standard_error caught;
        EXPECT_NE(run_command("echo one >&2; echo two >&2; exit 3", words, sizeof words), 0);
    }
    EXPECT_STREQ(words, "one\ntwo\n");
    EXPECT_EQ(read_file(standard_error), "one\ntwo\n");
}

TEST(command_words_test, a_silent_command_has_no_words) {
    char words[100] = "before";
    EXPECT_EQ(run_command("true", words, sizeof words), 0);
    EXPECT_STREQ(words, "");
}

TEST(command_words_test, long_words_are_cut) {
    char words[10];
    const caught_standard_error caught;
    run_command("echo 0123456789abcdef >&2", words, sizeof words);
    EXPECT_STREQ(words, "012345678");
}

TEST(command_words_test, errno_is_what_it_was) {
    char words[100];
    const caught_standard_error caught;
    for (const int before : {0, EEXIST}) {
        errno = before;
        run_command("echo words >&2; false", words, sizeof words);
        EXPECT_EQ(errno, before);
    }
}

TEST(command_words_test, no_descriptor_is_left_behind) {
    const int before = dup(0);
    close(before);
    char words[100];
    for (int i = 0; i < 5; i++) {
        run_command("true", words, sizeof words);
    }
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}

TEST(command_words_test, runs_the_command_also_when_no_descriptor_is_left) {
    // The command itself has room again: what fills the table is closed when it is executed.
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit few = {20, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    while (open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
    }
    char words[100] = "before";
    errno = EEXIST;
    const int result = run_command("exit 0", words, sizeof words);
    const int after = errno;
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(after, EEXIST);
    EXPECT_STREQ(words, "");
}

TEST(command_words_test, a_complaint_becomes_one_line) {
    EXPECT_EQ(shortened("f.nft:7:3-9: Error: wrong\n    ip6 saddr ::\n    ^^^\nf.nft:8:1-2: Error: more\n"),
              "f.nft:7:3-9: Error: wrong ip6 saddr ::");
    EXPECT_EQ(shortened("one line"), "one line");
    EXPECT_EQ(shortened("one line\n"), "one line");
    EXPECT_EQ(shortened("one line\n\n\n"), "one line");
    EXPECT_EQ(shortened(""), "");
}
