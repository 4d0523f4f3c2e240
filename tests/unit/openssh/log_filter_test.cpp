#include "openssh/reporter/log_filter.h"

#include <gtest/gtest.h>

#include <string>

using namespace openssh;

namespace {

constexpr std::string_view forced = "debug1: kex.c:choose_kex():929 (pid=8811): kex: algorithm: x [preauth]";

std::string bare(const log_line& line, size_t size = 200) {
    std::string buffer(size, '?');
    buffer.resize(write_bare_line(line, buffer.data(), size));
    return buffer;
}

}  // namespace

TEST(log_filter, hides_forced_lines) {
    log_filter filter;
    log_line line;
    EXPECT_EQ(judge_line(filter, forced, line), line_fate::keep_back);
    EXPECT_EQ(line.function, "choose_kex");
}

TEST(log_filter, passes_ordinary_lines) {
    log_filter filter;
    log_line line;
    EXPECT_EQ(judge_line(filter, "Accepted password for root from 10.0.0.1 port 1 ssh2", line), line_fate::pass);
    EXPECT_EQ(filter.shown_level, 0);
}

TEST(log_filter, shows_lines_of_a_requested_level) {
    log_filter filter;
    log_line line;
    EXPECT_EQ(judge_line(filter, "debug1: rexec start in 5 out 5", line), line_fate::pass);
    EXPECT_EQ(judge_line(filter, forced, line), line_fate::pass_bare);
    EXPECT_EQ(bare(line), "debug1: kex: algorithm: x [preauth]");
    EXPECT_EQ(judge_line(filter, "debug2: a.c:f():1 (pid=1): x", line), line_fate::keep_back);
    EXPECT_EQ(judge_line(filter, "debug3: x", line), line_fate::pass);
    EXPECT_EQ(judge_line(filter, "debug2: a.c:f():1 (pid=1): x", line), line_fate::pass_bare);
    EXPECT_EQ(judge_line(filter, "debug1: x", line), line_fate::pass);
    EXPECT_EQ(filter.shown_level, 3);
}

TEST(log_filter, shows_errors_from_the_named_places) {
    log_filter filter;
    log_line line;
    EXPECT_EQ(judge_line(filter, "error: kex.c:kex_choose_conf():1 (pid=1): no match", line), line_fate::pass_bare);
    EXPECT_EQ(bare(line), "error: no match");
    EXPECT_EQ(judge_line(filter, "sshconnect.c:ssh_connect_direct():1 (pid=1): connect to host", line),
              line_fate::pass_bare);
    EXPECT_EQ(bare(line), "connect to host");
}

TEST(log_filter, shows_steps_of_a_login_as_sshd_would) {
    const std::string postponed =
        "auth.c:auth_log():328 (pid=1): Postponed publickey for operator from 10.0.0.1 port 1 ssh2 [preauth]";
    const std::string failed = "auth.c:auth_log():328 (pid=1): Failed publickey for operator from 10.0.0.1 port 1 ssh2";
    log_filter filter;
    log_line line;
    EXPECT_EQ(judge_line(filter, postponed, line), line_fate::keep_back);
    EXPECT_EQ(judge_line(filter, failed, line), line_fate::pass_bare);
    EXPECT_EQ(judge_line(filter, "Connection from 10.0.0.1 port 1 on 10.0.0.2 port 22", line), line_fate::pass);
    EXPECT_EQ(judge_line(filter, postponed, line), line_fate::pass_bare);
}

TEST(log_filter, truncates_a_bare_line_to_the_buffer) {
    log_line line;
    ASSERT_TRUE(parse_log_line(forced, line));
    for (size_t size = 0; size < 60; ++size) {
        EXPECT_EQ(bare(line, size), std::string("debug1: kex: algorithm: x [preauth]").substr(0, size));
    }
}
