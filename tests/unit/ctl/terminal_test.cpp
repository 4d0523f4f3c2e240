#include "ssh_cfg_ctl/terminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

namespace {

/// Redirects standard output during its lifetime.
class diverted_output {
  public:
    explicit diverted_output(int fd) : kept(dup(STDOUT_FILENO)) {
        fflush(stdout);
        dup2(fd, STDOUT_FILENO);
    }
    ~diverted_output() {
        dup2(kept, STDOUT_FILENO);
        close(kept);
    }
    diverted_output(const diverted_output&) = delete;
    diverted_output& operator=(const diverted_output&) = delete;

  private:
    int kept;
};

class ctl_output_width_test : public testing::Test {
  protected:
    void SetUp() override { unsetenv("COLUMNS"); }
    void TearDown() override { unsetenv("COLUMNS"); }

    /// The width reported for a terminal with this many columns.
    static size_t width_on_terminal(unsigned short columns) {
        const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_EQ(0, grantpt(master) + unlockpt(master));
        const int terminal = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_GE(terminal, 0);
        const winsize size = {24, columns, 0, 0};
        EXPECT_EQ(0, ioctl(terminal, TIOCSWINSZ, &size));
        size_t width = 0;
        {
            const diverted_output diverted(terminal);
            width = ctl_output_width();
        }
        close(terminal);
        close(master);
        return width;
    }
};

TEST_F(ctl_output_width_test, is_the_width_of_the_terminal) {
    EXPECT_EQ(width_on_terminal(132), 132U);
    EXPECT_EQ(width_on_terminal(20), 20U);
}

TEST_F(ctl_output_width_test, is_80_if_the_terminal_reports_none) {
    EXPECT_EQ(width_on_terminal(0), 80U);
}

TEST_F(ctl_output_width_test, is_unlimited_in_a_pipe) {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    {
        const diverted_output diverted(ends[1]);
        EXPECT_EQ(ctl_output_width(), 0U);
    }
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ctl_output_width_test, is_taken_from_the_environment) {
    setenv("COLUMNS", "100", 1);
    EXPECT_EQ(width_on_terminal(132), 100U);
    for (const char* nonsense : {"", "0", "-5", "80x", " 80", "99999999999999999999999"}) {
        setenv("COLUMNS", nonsense, 1);
        EXPECT_EQ(width_on_terminal(132), 132U) << nonsense;
    }
}

}  // namespace
