#include "linux/host/banner_tokens.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include "unit/linux/platform_test_support.h"

namespace {

void name_host(const std::string& name) {
    ASSERT_EQ(0, sethostname(name.data(), name.size()));
}

TEST(banner_tokens, expand_to_the_routers_names) {
    name_host("edge1.example.net");
    EXPECT_EQ(banner_expand_tokens("Welcome to $(hostname) in $(domain)."), "Welcome to edge1 in example.net.");
    platform_test::write_file("/etc/resolv.conf", "nameserver 192.0.2.1\nsearch lab.example other.example\n");
    name_host("edge2");
    EXPECT_EQ(banner_expand_tokens("$(hostname)$(domain)$(hostname)"), "edge2lab.exampleedge2");
    platform_test::write_file("/etc/resolv.conf", "");
    EXPECT_EQ(banner_expand_tokens("<$(domain)>"), "<>");
}

TEST(banner_tokens, contain_nothing_that_a_terminal_interprets) {
    platform_test::write_file("/etc/resolv.conf",
                              "search a\x1b[2Jb\x07\xc2\x9b\xe2\x80\xae.\xff\xe2\x80\x8b\xc3\xa9\n");
    name_host("edge2");
    EXPECT_EQ(banner_expand_tokens("<$(domain)>"), "<a[2Jb.\xc3\xa9>");
    name_host("edge\x1b]0;x\x07.net\x1b[m");
    EXPECT_EQ(banner_expand_tokens("<$(hostname)|$(domain)>"), "<edge]0;x|net[m>");
    setenv("TZ", "<\x1b[1m>0", 1);
    tzset();
    EXPECT_EQ(banner_expand_tokens("$(time)").find('\x1b'), std::string::npos);
}

TEST(banner_tokens, expand_to_date_time_and_line) {
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_THAT(banner_expand_tokens("$(date)"), testing::MatchesRegex("20[0-9][0-9]-[01][0-9]-[0-3][0-9]"));
    EXPECT_THAT(banner_expand_tokens("$(time)"), testing::MatchesRegex("[0-2][0-9]:[0-5][0-9]:[0-6][0-9] UTC"));
    EXPECT_EQ(banner_expand_tokens("$(line)"), "ssh");
}

TEST(banner_tokens, that_are_unknown_are_kept) {
    name_host("edge1");
    for (const char* text : {"", "plain", "$", "$(", "$()", "$(host", "$(nonsense)", "$(HOSTNAME)", "$( hostname )",
                             "$hostname", "$$", "100$", "$(user) $(x"}) {
        EXPECT_EQ(banner_expand_tokens(text), text);
    }
    EXPECT_EQ(banner_expand_tokens("$($(hostname))"), "$(edge1)");
    EXPECT_EQ(banner_expand_tokens("$(nonsense $(hostname)"), "$(nonsense edge1");
}

TEST(banner_tokens, are_not_expanded_in_inserted_text) {
    platform_test::write_file("/etc/resolv.conf", "domain $(hostname)\n");
    name_host("edge1");
    EXPECT_EQ(banner_expand_tokens("$(domain)"), "$(hostname)");
}

}  // namespace
