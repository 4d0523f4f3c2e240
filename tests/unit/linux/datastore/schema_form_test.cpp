#include "linux/datastore/schema_form.h"

#include <gtest/gtest.h>

namespace {

TEST(schema_charsets, of_names_excludes_characters_that_a_shell_interprets) {
    EXPECT_TRUE(schema_has_charset("Blue_1.a-b", schema_charset::name));
    for (const char* name :
         {"a b", "a/b", "a'b", "a\"b", "a;b", "$(id)", "-a", ".a", "a\n", "\xc3\xa4", "a@b", "a,b"}) {
        EXPECT_FALSE(schema_has_charset(name, schema_charset::name)) << name;
    }
    EXPECT_FALSE(schema_has_charset(std::string("\0", 1), schema_charset::name));
}

TEST(schema_charsets, of_algorithms_has_the_at_sign) {
    EXPECT_TRUE(schema_has_charset("kex-1.v2@example.org", schema_charset::algorithm_name));
    EXPECT_FALSE(schema_has_charset("a,b", schema_charset::algorithm_name));
    EXPECT_FALSE(schema_has_charset("-a", schema_charset::algorithm_name));
}

TEST(schema_charsets, of_words_excludes_spaces_and_quotes) {
    EXPECT_TRUE(schema_has_charset("GigabitEthernet0/0/0/1", schema_charset::word));
    for (const char* word : {"a b", "a\"b", "a'b", "a,b", "a\\b", "a`b", "\xc3\xa4", "a\x7f"}) {
        EXPECT_FALSE(schema_has_charset(word, schema_charset::word)) << word;
    }
}

TEST(schema_charsets, of_printable_text_excludes_only_control_characters) {
    EXPECT_TRUE(schema_has_charset("ssh-rsa AAAA+/= m\xc3\xbcller \xf0\x9f\x98\x80", schema_charset::printable));
    for (const char* text : {"a\nb", "a\rb", "\t", "\x1b[m", "\x7f", "\xc2\x85", "\xff"}) {
        EXPECT_FALSE(schema_has_charset(text, schema_charset::printable)) << text;
    }
}

TEST(schema_charsets, of_delimited_text_also_includes_newlines_and_tabs) {
    EXPECT_TRUE(schema_has_charset("#one\n\ttwo\n#", schema_charset::delimited));
    for (const char* text : {"#a\rb#", "#\x1b[m#", "#\x7f#", "#\xc2\x85#", "#\xff#", "#\v#"}) {
        EXPECT_FALSE(schema_has_charset(text, schema_charset::delimited)) << text;
    }
}

TEST(schema_is_delimited, requires_the_same_punctuation_character_at_both_ends) {
    for (const char* text : {"##", "#a#", "%a#b%", "\"quoted\"", "~\n~"}) {
        EXPECT_TRUE(schema_is_delimited(text)) << text;
    }
    for (const char* text : {"", "#", "#a", "a#", "#a%", "noon", "0x0", " a ", "\na\n",
                             "\xc2\xa7"
                             "a\xc2\xa7"}) {
        EXPECT_FALSE(schema_is_delimited(text)) << text;
    }
}

TEST(schema_form_in_words, describes_what_is_allowed) {
    EXPECT_EQ(schema_form_in_words({schema_kind::number, 5, 120, {}, "seconds"}), "a number from 5 to 120 (seconds)");
    EXPECT_EQ(schema_form_in_words({schema_kind::flag, 0, 1, {}, "on"}), "true or false (on)");
    EXPECT_EQ(schema_form_in_words({schema_kind::presence, 1, 1, {}, "on"}), "true (on), or deletion of the item");
    EXPECT_EQ(schema_form_in_words({schema_kind::text, 1, 32, schema_charset::name, "VRF name"}),
              "1 to 32 letters, digits, '_', '-' or '.', not beginning with '-' or '.' (VRF name)");
}

}  // namespace
