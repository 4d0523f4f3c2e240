#include "user_keys/key_options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

/// The options as they are stored, or the refusal.
std::string options_of(const std::string& text) {
    key_options options = {.text = "before", .expires = {}, .for_security_keys = {}};
    std::string refusal;
    if (key_options_read(text, options, refusal)) {
        EXPECT_EQ(refusal, "");
        return options.text;
    }
    EXPECT_EQ(options.text, "before");
    return "refused: " + refusal;
}

void expect_kept(const std::string& text) {
    EXPECT_EQ(options_of(text), text);
}

TEST(key_options, are_kept_as_written) {
    expect_kept("");
    expect_kept("restrict");
    expect_kept("restrict,pty,command=\"ls -l, \\\"a b\\\" | cat\",from=\"10.0.0.0/8,!10.0.0.1\"");
    expect_kept("permitopen=\"192.0.2.1:80\",permitopen=\"[2001:db8::1]:25\",permitlisten=\"8080\"");
    expect_kept("no-pty,no-port-forwarding,no-agent-forwarding,no-X11-forwarding,no-user-rc");
    expect_kept("pty,port-forwarding,agent-forwarding,X11-forwarding,user-rc");
    EXPECT_EQ(options_of("RESTRICT,no-x11-FORWARDING,From=\"::1\""), "restrict,no-X11-forwarding,from=\"::1\"");
}

TEST(key_options, that_are_unknown_are_named_with_those_that_are_known) {
    EXPECT_EQ(options_of("restrict,no-ptty"),
              "refused: unknown option \"no-ptty\"; expected one of restrict, command=\"...\", from=\"...\", "
              "expiry-time=\"...\", permitopen=\"...\", permitlisten=\"...\", pty, no-pty, port-forwarding, "
              "no-port-forwarding, agent-forwarding, no-agent-forwarding, X11-forwarding, no-X11-forwarding, user-rc, "
              "no-user-rc, no-touch-required, verify-required");
    EXPECT_THAT(options_of(std::string(33, 'x')), StartsWith("refused: unknown option; expected"))
        << "too long to be a name";
    EXPECT_THAT(options_of("a+b"), StartsWith("refused: unknown option; expected"));
    EXPECT_THAT(options_of("no-restrict"), HasSubstr("unknown option \"no-restrict\""));
}

TEST(key_options, that_the_servers_do_not_carry_out_are_refused_with_the_reason) {
    EXPECT_EQ(
        options_of("cert-authority"),
        "refused: option cert-authority is not accepted: certificates are not accepted; import each user's own public "
        "key");
    EXPECT_THAT(options_of("principals=\"a\""), HasSubstr("option principals is not accepted"));
    EXPECT_THAT(options_of("environment=\"A=b\""), HasSubstr("the servers do not take variables from keys"));
    EXPECT_THAT(options_of("Tunnel=\"0\""),
                HasSubstr("option tunnel is not accepted: the servers do not permit tunnels"));
}

TEST(key_options, must_be_well_formed) {
    for (const char* text : {",restrict", "restrict,", "restrict,,pty", "=\"x\""}) {
        EXPECT_EQ(options_of(text), "refused: an option is missing before or after a comma") << text;
    }
    EXPECT_EQ(options_of("restrict=\"yes\""), "refused: option restrict has no value");
    for (const char* text :
         {"command", "command=", "command=ls", "command=\"ls", "command=\"ls\\\"", "command=\"\"", "command='ls'"}) {
        EXPECT_EQ(options_of(text),
                  "refused: option command: expected command=\"...\", where the quotes contain a command")
            << text;
    }
    EXPECT_EQ(options_of("command=\"ls\"pty"), "refused: expected a comma after each option but the last");
    EXPECT_EQ(options_of("restrict,pty,restrict"), "refused: duplicate option restrict");
    EXPECT_EQ(options_of("from=\"::1\",FROM=\"::1\""), "refused: duplicate option from");
}

TEST(key_options, sources_are_addresses_networks_and_patterns_of_addresses) {
    for (const char* list : {"10.0.0.1", "10.0.0.0/8", "0.0.0.0/0", "2001:db8::/32", "::1", "fe80::1%eth0", "10.1.*",
                             "!10.0.0.1,10.0.0.0/24", "192.0.2.?", "2001:db8:*", "10.0.0.1/32", "*"}) {
        expect_kept(std::string("from=\"") + list + '"');
    }
    for (const char* list :
         {"", "host.example", "*.example.com", "10.0.0.1/8", "10.0.0.0/33", "2001:db8::1/32", "10.0.0.0/", "10.0.0.0/x",
          "10.0.0", "!10.0.0.1", "!10.0.0.1,!10.0.0.2", "10.0.0.1,,10.0.0.2", "10.0.0.1,", "10.0.0.1 10.0.0.2", "/8",
          "10.0.0.0/8/8", "256.0.0.1", "!", "!!10.0.0.1"}) {
        EXPECT_EQ(
            options_of(std::string("from=\"") + list + '"'),
            "refused: option from: expected from=\"...\", where the quotes contain a list of addresses, networks such "
            "as 10.0.0.0/8, or patterns of addresses with * and ?; the servers do not look up host names")
            << list;
    }
}

TEST(key_options, endpoints_of_forwarding_have_a_port) {
    for (const char* value : {"host:80", "192.0.2.1:*", "[::1]:65535", "localhost:1"}) {
        expect_kept(std::string("permitopen=\"") + value + '"');
        expect_kept(std::string("permitlisten=\"") + value + '"');
    }
    expect_kept("permitlisten=\"*\"");
    for (const char* value : {"", "host", "host:", ":80", "host:0", "host:65536", "::1:80", "[::1]80", "[]:80",
                              "[::1:80", "a/b:80", "host:-1", "host:http"}) {
        EXPECT_THAT(options_of(std::string("permitopen=\"") + value + '"'), StartsWith("refused: option permitopen"))
            << value;
        EXPECT_THAT(options_of(std::string("permitlisten=\"") + value + '"'),
                    StartsWith("refused: option permitlisten"))
            << value;
    }
    EXPECT_THAT(options_of("permitopen=\"80\""), StartsWith("refused: option permitopen"));
}

std::optional<int64_t> expiry(const std::string& value) {
    key_options options;
    std::string refusal;
    return key_options_read("expiry-time=\"" + value + '"', options, refusal) ? options.expires : std::nullopt;
}

TEST(key_options, times_are_local_or_utc) {
    setenv("TZ", "EST5", 1);
    tzset();
    EXPECT_EQ(expiry("20270101Z"), 1798761600);
    EXPECT_EQ(expiry("20270101"), 1798761600 + 5 * 3600);
    EXPECT_EQ(expiry("202701011230Z"), 1798761600 + 12 * 3600 + 30 * 60);
    EXPECT_EQ(expiry("20270101123059Z"), 1798761600 + 12 * 3600 + 30 * 60 + 59);
    EXPECT_TRUE(expiry("20280229").has_value());
    for (const char* value : {"", "Z", "2027", "20270229", "20271301", "20270132", "20270100", "202701012460",
                              "2027010112", "20270101123060", "2027010Z", "20270101z", "2027-01-01", "20270101ZZ"}) {
        EXPECT_FALSE(expiry(value).has_value()) << value;
    }
    EXPECT_THAT(options_of("expiry-time=\"tomorrow\""),
                HasSubstr("the quotes contain YYYYMMDD or YYYYMMDDHHMM[SS], with Z"));
    key_options options;
    std::string refusal;
    ASSERT_TRUE(key_options_read("restrict", options, refusal));
    EXPECT_FALSE(options.expires.has_value());
}

TEST(key_options, end_at_a_blank_outside_quotes) {
    EXPECT_EQ(key_options_size("restrict ssh-rsa AAAA"), 8U);
    EXPECT_EQ(key_options_size("command=\"a \\\" b\"\tssh-rsa"), 16U);
    EXPECT_EQ(key_options_size("command=\"a b"), 12U);
    EXPECT_EQ(key_options_size(""), 0U);
    EXPECT_EQ(key_options_size("\\"), 1U);
}

}  // namespace
