#include "linux/datastore/schema_text.h"

#include <gtest/gtest.h>

namespace {

TEST(text_format, has_no_greatest_length) {
    const std::string long_text(5000, 'x');
    EXPECT_EQ(text_format("<%s>", long_text.c_str()), "<" + long_text + ">");
    EXPECT_EQ(text_format("%s", ""), "");
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

TEST_P(text_utf8, is_read) {
    uint32_t character = 0;
    EXPECT_EQ(text_utf8_character(GetParam().text, character), GetParam().length);
    EXPECT_EQ(character, GetParam().character);
}

INSTANTIATE_TEST_SUITE_P(
    characters, text_utf8,
    testing::Values(utf8_case{"nothing", "", 0, 0}, utf8_case{"ascii", "a", 1, 'a'},
                    utf8_case{"two_bytes", "\xc3\xa4", 2, 0xe4}, utf8_case{"three_bytes", "\xe2\x82\xac", 3, 0x20ac},
                    utf8_case{"four_bytes", "\xf0\x9f\x98\x80", 4, 0x1f600},
                    utf8_case{"last_character", "\xf4\x8f\xbf\xbf", 4, 0x10ffff},
                    utf8_case{"beyond_the_last", "\xf4\x90\x80\x80", 0, 0},
                    utf8_case{"surrogate", "\xed\xa0\x80", 0, 0}, utf8_case{"overlong_slash", "\xc0\xaf", 0, 0},
                    utf8_case{"overlong_three", "\xe0\x80\xaf", 0, 0},
                    utf8_case{"overlong_four", "\xf0\x80\x80\xaf", 0, 0}, utf8_case{"continuation_first", "\x80", 0, 0},
                    utf8_case{"cut_off", "\xe2\x82", 0, 0}, utf8_case{"broken_continuation", "\xe2\x28\xa1", 0, 0},
                    utf8_case{"no_lead_byte", "\xff", 0, 0}),
    [](const testing::TestParamInfo<utf8_case>& info) { return std::string(info.param.name); });

TEST(text_escape, makes_one_harmless_line) {
    EXPECT_EQ(text_escape("plain \xc3\xa4", 80), "plain \xc3\xa4");
    EXPECT_EQ(text_escape("a\nb\tc\x7f", 80), "a\\x0ab\\x09c\\x7f");
    EXPECT_EQ(text_escape("\xff\xc2\x85", 80), "\\xff\\xc2\\x85");
    EXPECT_EQ(text_escape("\"\\", 80), "\\\"\\\\");
    EXPECT_EQ(text_escape(std::string("a\0b", 3), 80), "a\\x00b");
}

TEST(text_escape, cuts_between_characters) {
    EXPECT_EQ(text_escape("\xc3\xa4\xc3\xb6\xc3\xbc", 2), "\xc3\xa4\xc3\xb6...");
    EXPECT_EQ(text_escape("abc", 3), "abc");
}

TEST(text_charset, of_names_keeps_out_what_a_shell_would_act_on) {
    EXPECT_TRUE(text_has_charset("Blue_1.a-b", schema_charset::name));
    for (const char* name :
         {"a b", "a/b", "a'b", "a\"b", "a;b", "$(id)", "-a", ".a", "a\n", "\xc3\xa4", "a@b", "a,b"}) {
        EXPECT_FALSE(text_has_charset(name, schema_charset::name)) << name;
    }
    EXPECT_FALSE(text_has_charset(std::string("\0", 1), schema_charset::name));
}

TEST(text_charset, of_algorithms_has_the_at_sign) {
    EXPECT_TRUE(text_has_charset("kex-1.v2@example.org", schema_charset::algorithm_name));
    EXPECT_FALSE(text_has_charset("a,b", schema_charset::algorithm_name));
    EXPECT_FALSE(text_has_charset("-a", schema_charset::algorithm_name));
}

TEST(text_charset, of_words_has_no_blank_or_quote) {
    EXPECT_TRUE(text_has_charset("GigabitEthernet0/0/0/1", schema_charset::word));
    for (const char* word : {"a b", "a\"b", "a'b", "a,b", "a\\b", "a`b", "\xc3\xa4", "a\x7f"}) {
        EXPECT_FALSE(text_has_charset(word, schema_charset::word)) << word;
    }
}

TEST(text_charset, of_printable_text_has_every_character_but_control_characters) {
    EXPECT_TRUE(text_has_charset("ssh-rsa AAAA+/= m\xc3\xbcller \xf0\x9f\x98\x80", schema_charset::printable));
    for (const char* text : {"a\nb", "a\rb", "\t", "\x1b[m", "\x7f", "\xc2\x85", "\xff"}) {
        EXPECT_FALSE(text_has_charset(text, schema_charset::printable)) << text;
    }
}

TEST(text_charset, of_delimited_text_has_newlines_and_tabs_too) {
    EXPECT_TRUE(text_has_charset("#one\n\ttwo\n#", schema_charset::delimited));
    for (const char* text : {"#a\rb#", "#\x1b[m#", "#\x7f#", "#\xc2\x85#", "#\xff#", "#\v#"}) {
        EXPECT_FALSE(text_has_charset(text, schema_charset::delimited)) << text;
    }
}

TEST(text_is_delimited, wants_the_same_punctuation_character_at_both_ends) {
    for (const char* text : {"##", "#a#", "%a#b%", "\"quoted\"", "~\n~"}) {
        EXPECT_TRUE(text_is_delimited(text)) << text;
    }
    for (const char* text : {"", "#", "#a", "a#", "#a%", "noon", "0x0", " a ", "\na\n",
                             "\xc2\xa7"
                             "a\xc2\xa7"}) {
        EXPECT_FALSE(text_is_delimited(text)) << text;
    }
}

TEST(text_of_form, says_what_is_allowed) {
    EXPECT_EQ(text_of_form({schema_kind::number, 5, 120, {}, "seconds"}), "a number from 5 to 120 (seconds)");
    EXPECT_EQ(text_of_form({schema_kind::flag, 0, 1, {}, "on"}), "true or false (on)");
    EXPECT_EQ(text_of_form({schema_kind::presence, 1, 1, {}, "on"}), "true (on), or deletion of the item");
    EXPECT_EQ(text_of_form({schema_kind::text, 1, 32, schema_charset::name, "VRF name"}),
              "1 to 32 letters, digits, '_', '-' or '.', not beginning with '-' or '.' (VRF name)");
}

}  // namespace
