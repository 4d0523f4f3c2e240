#include "openssh/reporter/log_line.h"

#include <gtest/gtest.h>

using namespace openssh;

TEST(log_line, is_split_into_its_parts) {
    log_line line;
    ASSERT_TRUE(parse_log_line("debug1: kex.c:choose_kex():929 (pid=8811): kex: algorithm: x [preauth]", line));
    EXPECT_EQ(line.severity, "debug1");
    EXPECT_EQ(line.file, "kex.c");
    EXPECT_EQ(line.function, "choose_kex");
    EXPECT_EQ(line.pid, 8811U);
    EXPECT_EQ(line.text, "kex: algorithm: x");
    EXPECT_TRUE(line.before_authentication);
}

TEST(log_line, without_a_severity_has_the_normal_level) {
    log_line line;
    ASSERT_TRUE(parse_log_line("auth2-pubkey.c:f():1 (pid=7): Accepted key", line));
    EXPECT_EQ(line.severity, "");
    EXPECT_EQ(line.file, "auth2-pubkey.c");
    EXPECT_FALSE(line.before_authentication);
}

TEST(log_line, ends_before_the_newline) {
    log_line line;
    ASSERT_TRUE(parse_log_line("debug2: packet.c:ssh_set_newkeys():874 (pid=1): mode 1\r\n", line));
    EXPECT_EQ(line.text, "mode 1");
}

TEST(log_line, may_have_no_text) {
    log_line line;
    ASSERT_TRUE(parse_log_line("debug3: a.c:f():1 (pid=1): ", line));
    EXPECT_EQ(line.text, "");
}

TEST(log_line, without_a_complete_tag_is_refused) {
    for (const char* text :
         {"", "debug1: ", "debug1: kex: algorithm: x", "Accepted password for root from 10.0.0.1 port 1 ssh2",
          "debug1: kex.c:choose_kex():929 (pid=8811):", "debug1: kex.c:choose_kex():929 (pid=): x",
          "debug1: kex.c:choose_kex():929 (pid=99999999999): x", "debug1: kex.c:choose_kex:929 (pid=1): x",
          "debug1: kex.h:choose_kex():929 (pid=1): x", "debug1: :choose_kex():929 (pid=1): x",
          " debug1: kex.c:choose_kex():929 (pid=1): x", "x debug1: kex.c:choose_kex():929 (pid=1): x"}) {
        log_line line;
        line.text = "untouched";
        EXPECT_FALSE(parse_log_line(text, line)) << text;
        EXPECT_EQ(line.text, "untouched") << text;
    }
}

TEST(log_line, truncated_anywhere_is_parsed_safely) {
    const std::string_view whole = "debug1: kex.c:choose_kex():929 (pid=8811): kex: algorithm: x [preauth]\r\n";
    for (size_t size = 0; size <= whole.size(); ++size) {
        log_line line;
        const std::string cut(whole.substr(0, size));
        EXPECT_EQ(parse_log_line(cut, line), size >= whole.find("): ") + 3 && size >= 43) << cut;
    }
}

TEST(log_line, debug_level_is_the_number_after_the_word) {
    EXPECT_EQ(debug_level_of("debug1: x"), 1);
    EXPECT_EQ(debug_level_of("debug3: x"), 3);
    EXPECT_EQ(debug_level_of("debug4: x"), 0);
    EXPECT_EQ(debug_level_of("debug0: x"), 0);
    EXPECT_EQ(debug_level_of("debug1"), 0);
    EXPECT_EQ(debug_level_of("debug"), 0);
    EXPECT_EQ(debug_level_of("error: x"), 0);
}
