#include "ssh_cfg_ctl/table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

using testing::ElementsAre;

const ctl_table sessions = {
    {{"ID", false}, {"User", false}, {"Host", false}, {"Channel", true}, {"Line", true}},
    {{{"1"}, {"operator"}, {"192.0.2.7"}, {"0", "1"}, {"vty 3", "-"}},
     {{"20"}, {"a-user-with-a-long-name"}, {"host.in.a.far.country.example.net"}, {"0"}, {"-"}}}};

size_t widest_line(const std::string& text) {
    size_t widest = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        widest = std::max(widest, ctl_text_width(line));
    }
    return widest;
}

TEST(ctl_wrapped, breaks_after_the_last_break_that_fits) {
    EXPECT_THAT(ctl_wrapped("aes128-ctr,aes256-ctr,aes128-cbc", 24, ","),
                ElementsAre("aes128-ctr,aes256-ctr,", "aes128-cbc"));
    EXPECT_THAT(ctl_wrapped("one two three", 7, " "), ElementsAre("one two", "three"));
    EXPECT_THAT(ctl_wrapped("one two three", 8, " "), ElementsAre("one two", "three"));
    EXPECT_THAT(ctl_wrapped("a  b", 1, " "), ElementsAre("a", "b"));
}

TEST(ctl_wrapped, breaks_anywhere_if_necessary) {
    EXPECT_THAT(ctl_wrapped("abcdefgh", 3, " "), ElementsAre("abc", "def", "gh"));
    EXPECT_THAT(ctl_wrapped("üüüü", 3, " "), ElementsAre("üüü", "ü"));
    EXPECT_THAT(ctl_wrapped("abc,defgh", 3, ","), ElementsAre("abc", ",de", "fgh"));
}

TEST(ctl_wrapped, leaves_a_text_that_fits) {
    EXPECT_THAT(ctl_wrapped("", 5, " "), ElementsAre(""));
    EXPECT_THAT(ctl_wrapped("abcde", 5, " "), ElementsAre("abcde"));
    EXPECT_THAT(ctl_wrapped(std::string(1000, 'x'), 0, " "), ElementsAre(std::string(1000, 'x')));
}

TEST(ctl_wrapped, loses_only_spaces) {
    const std::string text = "diffie-hellman-group14-sha256,ecdh-sha2-nistp256,  curve25519-sha256 and-more";
    for (size_t width = 1; width < 100; width++) {
        std::string joined;
        for (const std::string& line : ctl_wrapped(text, width, " ,-")) {
            EXPECT_LE(ctl_text_width(line), width);
            joined += line;
        }
        std::string expected = text;
        std::erase(expected, ' ');
        std::erase(joined, ' ');
        EXPECT_EQ(joined, expected) << width;
    }
}

TEST(ctl_table_text, a_wide_line_fits_every_column) {
    EXPECT_EQ(ctl_table_text(sessions, 0, 0),
              "ID  User                     Host                               Channel  Line\n"
              "1   operator                 192.0.2.7                          0        vty 3\n"
              "                                                                1        -\n"
              "20  a-user-with-a-long-name  host.in.a.far.country.example.net  0        -\n");
    EXPECT_EQ(ctl_table_text(sessions, 78, 0), ctl_table_text(sessions, 0, 0));
}

TEST(ctl_table_text, on_a_narrow_line_the_widest_columns_shrink) {
    EXPECT_EQ(ctl_table_text(sessions, 60, 2),
              "  ID  User            Host              Channel  Line\n"
              "  1   operator        192.0.2.7         0        vty 3\n"
              "                                        1        -\n"
              "  20  a-user-with-a-  host.in.a.far.    0        -\n"
              "      long-name       country.example.\n"
              "                      net\n");
}

TEST(ctl_table_text, fits_every_possible_width) {
    for (size_t width = 46; width < 100; width++) {
        const std::string text = ctl_table_text(sessions, width, 0);
        EXPECT_LE(widest_line(text), width);
        EXPECT_EQ(text.substr(0, 2), "ID");
    }
}

TEST(ctl_table_text, becomes_lists_instead_of_an_unreadable_table) {
    EXPECT_EQ(ctl_table_text(sessions, 39, 2),
              "  ID:       1\n"
              "  User:     operator\n"
              "  Host:     192.0.2.7\n"
              "  Channel:  0\n"
              "            1\n"
              "  Line:     vty 3\n"
              "            -\n"
              "\n"
              "  ID:       20\n"
              "  User:     a-user-with-a-long-name\n"
              "  Host:     host.in.a.far.country.\n"
              "            example.net\n"
              "  Channel:  0\n"
              "  Line:     -\n");
}

TEST(ctl_table_text, long_headings_are_wrapped_too) {
    const ctl_table table = {{{"Minutes to rekey", false}, {"Bytes to rekey", false}}, {{{"1"}, {"2"}}}};
    EXPECT_EQ(ctl_table_text(table, 24, 0),
              "Minutes to  Bytes to\n"
              "rekey       rekey\n"
              "1           2\n");
}

TEST(ctl_list_text, values_are_next_to_their_labels) {
    EXPECT_EQ(ctl_list_text({{"Port", {"22"}, " "}, {"Ciphers", {"aes128-ctr,aes256-ctr"}, ","}}, 24, 0),
              "Port:     22\n"
              "Ciphers:  aes128-ctr,\n"
              "          aes256-ctr\n");
    EXPECT_EQ(ctl_list_text({{"VRFs", {"red", "blue"}, " "}}, 0, 2), "  VRFs:  red\n         blue\n");
    EXPECT_EQ(ctl_list_text({}, 0, 0), "");
}

TEST(ctl_list_text, a_value_has_at_least_eight_columns) {
    EXPECT_EQ(ctl_list_text({{"A long label", {"abcdefghijkl"}, " "}}, 5, 0),
              "A long label:  abcdefgh\n"
              "               ijkl\n");
}

}  // namespace
