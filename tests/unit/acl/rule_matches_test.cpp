#include "acl/rule_matches.h"

#include "acl_test.h"

namespace {

class rule_matches_test : public acl_test {
  protected:
    rule_text text;
    std::string written() { return text.buffer; }
};

}  // namespace

TEST_F(rule_matches_test, source_port_by_operator) {
    const std::vector<std::string> expected = {
        "", "tcp sport eq 5 ", "tcp sport gt 5 ", "tcp sport lt 5 ", "tcp sport ne 5 ", "tcp sport 5-9 ", ""};
    for (uint32_t operation = 0; operation < expected.size(); operation++) {
        text = {};
        append_sport_match(text, operation, 5, 9);
        EXPECT_EQ(written(), expected[operation]) << operation;
    }
}

TEST_F(rule_matches_test, dscp_uses_equal_for_unknown_operators) {
    const std::vector<std::string> expected = {"ip dscp eq 5 ", "ip dscp eq 5 ", "ip dscp gt 5 ", "ip dscp lt 5 ",
                                               "ip dscp ne 5 ", "ip dscp 5-9 ",  "ip dscp eq 5 "};
    for (uint32_t operation = 0; operation < expected.size(); operation++) {
        text = {};
        set_dscp_value(text, operation, 5, 9, false);
        EXPECT_EQ(written(), expected[operation]) << operation;
    }
    EXPECT_TRUE(fake_platform::debugged("Entered set_dscp_value"));
    text = {};
    set_dscp_value(text, 255, 5, 9, true);
    EXPECT_EQ(written(), "ip6 dscp eq 5 ");
}

TEST_F(rule_matches_test, tcp_flags_support_two_operators_and_six_flags) {
    append_tcp_flags_match(text, 0, 0xff, 0xff);
    append_tcp_flags_match(text, 3, 0xff, 0xff);
    EXPECT_EQ(written(), "");
    append_tcp_flags_match(text, 1, 0xff, 0xff);
    append_tcp_flags_match(text, 2, 0x02, 0x12);
    EXPECT_EQ(written(), "tcp flags & 63 == 63 tcp flags & 18 == 2 ");
    EXPECT_TRUE(fake_platform::debugged("frag_bit_mask = 63, frag_bit_set = 63 "));
    EXPECT_TRUE(fake_platform::debugged("frag_bit = 18, frag_bit_set = 2 "));
}

TEST_F(rule_matches_test, prefix_length_of_a_mask) {
    EXPECT_EQ(mask_prefix_length(ipv4("255.255.255.255")), 32U);
    EXPECT_EQ(mask_prefix_length(ipv4("255.255.254.0")), 23U);
    EXPECT_EQ(mask_prefix_length(ipv4("255.0.255.0")), 8U);
    EXPECT_EQ(mask_prefix_length(ipv4("128.0.0.0")), 1U);
    EXPECT_EQ(mask_prefix_length(ipv4("127.255.255.255")), 0U);
    EXPECT_EQ(mask_prefix_length(0), 0U);
}

TEST_F(rule_matches_test, a_rule_that_is_too_long_is_truncated_without_overflow) {
    const std::string piece(100, 'x');
    for (int i = 0; i < 10; i++) {
        append_piece(text, piece.c_str());
    }
    EXPECT_EQ(written(), std::string(rule_text_size - 1, 'x'));
    // The length includes the text that did not fit; beyond the end nothing is appended.
    EXPECT_EQ(text.length, 600U);
    append_piece(text, "y");
    EXPECT_EQ(text.length, 600U);
}

TEST_F(rule_matches_test, a_piece_that_crosses_the_end_is_truncated) {
    append_piece(text, std::string(598, 'x').c_str());
    append_piece(text, "%s", {"abcdef"});
    EXPECT_EQ(written(), std::string(598, 'x') + "a");
    EXPECT_EQ(text.length, 604U);
}

TEST_F(rule_matches_test, an_argument_behind_the_end_is_only_counted) {
    append_piece(text, std::string(598, 'x').c_str());
    append_piece(text, "%s%s%d", {"ab", "cd", 7U});
    EXPECT_EQ(written(), std::string(598, 'x') + "a");
    EXPECT_EQ(text.length, 603U);
}
