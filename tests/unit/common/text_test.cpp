#include "common/text.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "call_faults.h"

namespace {

using std::string_literals::operator""s;

TEST(text_format, has_no_maximum_length) {
    const std::string long_text(100'000, 'x');
    EXPECT_EQ(text_format("<%s-%d>", long_text.c_str(), 7), "<" + long_text + "-7>");
    EXPECT_EQ(text_format("%s", ""), "");
}

TEST(text_format_into, truncates_at_the_end_of_the_buffer) {
    char buffer[] = "......|";
    EXPECT_EQ(text_format_into(buffer, 6, "%d", 12345), 5U);
    EXPECT_STREQ(buffer, "12345");
    EXPECT_EQ(text_format_into(buffer, 6, "%d", 1234567), 5U);
    EXPECT_STREQ(buffer, "12345");
    EXPECT_EQ(buffer[6], '|');
    EXPECT_EQ(text_format_into(buffer, 1, "%d", 7), 0U);
    EXPECT_STREQ(buffer, "");
}

TEST(text_format_into, allocates_nothing_and_leaves_errno_alone) {
    char buffer[16];
    errno = EXDEV;
    call_faults::clear();
    text_format_into(buffer, sizeof buffer, "%s %d", "a text that is cut", 1);
    EXPECT_EQ(call_faults::count_calls("allocation"), 0U);
    // A character that the locale cannot represent makes printf fail.
    EXPECT_EQ(text_format_into(buffer, sizeof buffer, "%lc", static_cast<wint_t>(0x20ac)), 0U);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(errno, EXDEV);
}

struct utf8_case {
    const char* name;
    std::string text;
    size_t length;
    uint32_t character;
};

void PrintTo(const utf8_case& row, std::ostream* out) {
    *out << row.name;
}

class text_utf8 : public testing::TestWithParam<utf8_case> {};

TEST_P(text_utf8, is_decoded) {
    uint32_t character = 0;
    EXPECT_EQ(text_utf8_character(GetParam().text, character), GetParam().length);
    EXPECT_EQ(character, GetParam().character);
}

INSTANTIATE_TEST_SUITE_P(
    characters, text_utf8,
    testing::Values(
        utf8_case{"nothing", "", 0, 0}, utf8_case{"nul", "\0"s, 1, 0}, utf8_case{"ascii", "a", 1, 'a'},
        utf8_case{"last_of_one_byte", "\x7f", 1, 0x7f}, utf8_case{"first_of_two_bytes", "\xc2\x80", 2, 0x80},
        utf8_case{"two_bytes", "\xc3\xa4", 2, 0xe4}, utf8_case{"last_of_two_bytes", "\xdf\xbf", 2, 0x7ff},
        utf8_case{"first_of_three_bytes", "\xe0\xa0\x80", 3, 0x800},
        utf8_case{"three_bytes", "\xe2\x82\xac", 3, 0x20ac},
        utf8_case{"before_the_surrogates", "\xed\x9f\xbf", 3, 0xd7ff},
        utf8_case{"behind_the_surrogates", "\xee\x80\x80", 3, 0xe000},
        utf8_case{"last_of_three_bytes", "\xef\xbf\xbf", 3, 0xffff},
        utf8_case{"first_of_four_bytes", "\xf0\x90\x80\x80", 4, 0x10000},
        utf8_case{"four_bytes", "\xf0\x9f\x98\x80", 4, 0x1f600},
        utf8_case{"last_character", "\xf4\x8f\xbf\xbf", 4, 0x10ffff},
        utf8_case{"beyond_the_last", "\xf4\x90\x80\x80", 0, 0},
        utf8_case{"far_beyond_the_last", "\xf5\x80\x80\x80", 0, 0},
        utf8_case{"five_bytes", "\xf8\x88\x80\x80\x80", 0, 0}, utf8_case{"first_surrogate", "\xed\xa0\x80", 0, 0},
        utf8_case{"last_surrogate", "\xed\xbf\xbf", 0, 0}, utf8_case{"overlong_nul", "\xc0\x80", 0, 0},
        utf8_case{"overlong_slash", "\xc0\xaf", 0, 0}, utf8_case{"overlong_two", "\xc1\xbf", 0, 0},
        utf8_case{"overlong_three", "\xe0\x9f\xbf", 0, 0}, utf8_case{"overlong_four", "\xf0\x8f\xbf\xbf", 0, 0},
        utf8_case{"continuation_first", "\x80", 0, 0}, utf8_case{"cut_off_two", "\xc3", 0, 0},
        utf8_case{"cut_off_three", "\xe2\x82", 0, 0}, utf8_case{"cut_off_four", "\xf0\x9f\x98", 0, 0},
        utf8_case{"broken_continuation", "\xe2\x28\xa1", 0, 0}, utf8_case{"no_lead_byte", "\xff", 0, 0}),
    [](const testing::TestParamInfo<utf8_case>& info) { return std::string(info.param.name); });

TEST(text_is_utf8, requires_every_character_to_be_well_formed) {
    EXPECT_TRUE(text_is_utf8(""));
    EXPECT_TRUE(text_is_utf8("a\x01\u00fc\u20ac\U0001f600"));
    for (const char* text : {"\xff", "\xc0\x80", "a\xc3", "\xed\xa0\x80", "\xe0\x80\x80", "\xf5\x80\x80\x80", "\x80"}) {
        EXPECT_FALSE(text_is_utf8(text));
    }
}

TEST(text_escape, escapes_characters_that_a_terminal_or_log_would_interpret) {
    EXPECT_EQ(text_escape("plain \u00fc \u20ac \U0001f600", 100), "plain \u00fc \u20ac \U0001f600");
    EXPECT_EQ(text_escape("a\nb\tc\x1b[2J\x7f", 100), "a\\x0ab\\x09c\\x1b[2J\\x7f");
    EXPECT_EQ(text_escape("a\0b"s, 100), "a\\x00b");
    EXPECT_EQ(text_escape("\xc2\x9b|\xff|\xc2", 100), "\\xc2\\x9b|\\xff|\\xc2");
    EXPECT_EQ(text_escape("\xe0\x80\x80 \xed\xa0\x80 \xf4\x90\x80\x80", 100),
              "\\xe0\\x80\\x80 \\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80");
}

TEST(text_escape, escapes_characters_that_disguise_a_text) {
    EXPECT_EQ(text_escape("a\u202eb\u200bc\u2066d\u061ce\ufefff", 100),
              "a\\xe2\\x80\\xaeb\\xe2\\x80\\x8bc\\xe2\\x81\\xa6d\\xd8\\x9ce\\xef\\xbb\\xbff");
    const char neighbours[] = "\u00a0|\u061b|\u2010|\u2027|\u2030|\u2070|\ufefe";
    EXPECT_EQ(text_escape(neighbours, 100), neighbours);
}

TEST(text_escape, truncates_between_characters_and_within_the_size) {
    EXPECT_EQ(text_escape("abcdef", 6), "abcdef");
    EXPECT_EQ(text_escape("abcdefg", 6), "abcdef...");
    EXPECT_EQ(text_escape("a\u00fc", 2), "a...");
    EXPECT_EQ(text_escape("a\n", 5), "a\\x0a");
    EXPECT_EQ(text_escape("a\nb", 4), "a...");
    EXPECT_EQ(text_escape("a", 0), "...");
    EXPECT_EQ(text_escape("", 0), "");
}

TEST(text_escape, leaves_only_ascii_on_request) {
    EXPECT_EQ(text_escape_to_ascii("a~\u00fc\"\\\n\xff\x7f", 100), "a~\\xc3\\xbc\"\\\\x0a\\xff\\x7f");
}

TEST(text_escape, escapes_quotes_only_for_quoted_text) {
    EXPECT_EQ(text_escape("a\"b\\c", 100), "a\"b\\c");
    EXPECT_EQ(text_escape_quoted("a\"b\\c\n\u00fc", 100), "a\\\"b\\\\c\\x0a\u00fc");
    EXPECT_EQ(text_escape_quoted("ab\"", 3), "ab...");
}

}  // namespace
