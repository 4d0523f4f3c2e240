#include "linux/access_lists/acl_line.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::HasSubstr;

acl_rule parsed(uint32_t family, const std::string& line) {
    acl_rule rule;
    std::string error;
    EXPECT_TRUE(acl_parse_line(family, line, rule, error)) << line << ": " << error;
    return rule;
}

/// The line as it is printed after it was parsed.
std::string again(uint32_t family, const std::string& line) {
    acl_rule rule = parsed(family, line);
    return acl_format_line(family, rule);
}

std::string refusal(uint32_t family, const std::string& line) {
    acl_rule rule;
    std::string error;
    EXPECT_FALSE(acl_parse_line(family, line, rule, error)) << line;
    return error;
}

TEST(acl_line_test, reads_every_part_of_an_entry) {
    const acl_rule rule =
        parsed(ACL_FAMILY_IPV4,
               "10 permit tcp 10.1.2.0/23 gt 1023 host 192.0.2.1 range ssh 30 tcp-flags +syn -ack "
               "dscp neq 8 ttl lt 64 packet-length range 40 1500 fragment-offset eq 0 counter c1 log");
    EXPECT_EQ(rule.sequence, 10U);
    EXPECT_EQ(rule.action, 1);
    EXPECT_FALSE(rule.any_protocol);
    EXPECT_EQ(rule.protocol, 6U);
    EXPECT_EQ(rule.source.mask[2], 1);
    EXPECT_EQ(rule.source.mask[3], 255);
    EXPECT_EQ(rule.conditions[ACL_SOURCE_PORT].operation, ACL_GT);
    EXPECT_EQ(rule.conditions[ACL_SOURCE_PORT].first, 1023U);
    EXPECT_EQ(rule.destination.mask[3], 0);
    EXPECT_EQ(rule.conditions[ACL_DESTINATION_PORT].operation, ACL_RANGE);
    EXPECT_EQ(rule.conditions[ACL_DESTINATION_PORT].first, 22U);
    EXPECT_EQ(rule.conditions[ACL_DESTINATION_PORT].second, 30U);
    EXPECT_EQ(rule.tcp_flags_mask, 2 | 16);
    EXPECT_EQ(rule.tcp_flags, 2);
    EXPECT_EQ(rule.conditions[ACL_DSCP].operation, ACL_NE);
    EXPECT_EQ(rule.conditions[ACL_TTL].operation, ACL_LT);
    EXPECT_EQ(rule.conditions[ACL_PACKET_LENGTH].second, 1500U);
    EXPECT_EQ(rule.conditions[ACL_FRAGMENT_OFFSET].operation, ACL_EQ);
    EXPECT_EQ(rule.counter, "c1");
    EXPECT_TRUE(rule.log);
}

TEST(acl_line_test, round_trips) {
    for (const char* line : {
             "10 permit tcp any any",
             "20 deny ipv4 any any log",
             "30 permit udp 10.0.0.0/8 eq domain any gt 1023",
             "40 permit tcp host 192.0.2.7 any range telnet 25 counter hits log",
             "50 deny 89 10.0.0.0 0.255.0.255 any",
             "60 permit tcp any any tcp-flags +syn -ack dscp eq 46 ttl gt 1 packet-length lt 1500",
             "70 deny tcp any neq netconf any eq ssh fragment-offset range 1 8191",
         }) {
        EXPECT_EQ(again(ACL_FAMILY_IPV4, line), line);
    }
    for (const char* line : {
             "10 permit tcp 2001:db8::/32 host 2001:db8::1 eq ssh",
             "20 deny ipv6 any any ttl range 1 10",
             "30 permit icmpv6 any fe80::/10",
         }) {
        EXPECT_EQ(again(ACL_FAMILY_IPV6, line), line);
    }
}

TEST(acl_line_test, accepts_abbreviations) {
    EXPECT_EQ(again(ACL_FAMILY_IPV4, "permit ip 10.1.1.0 0.0.0.255 any"), "0 permit ipv4 10.1.1.0/24 any");
    EXPECT_EQ(again(ACL_FAMILY_IPV4, "permit 6 10.1.1.1 0.0.0.0/0"), "0 permit tcp host 10.1.1.1 any");
    EXPECT_EQ(again(ACL_FAMILY_IPV4, "\t1\tpermit  tcp any any dscp 46\r"), "1 permit tcp any any dscp eq 46");
    EXPECT_EQ(again(ACL_FAMILY_IPV6, "permit tcp 2001:db8::1 ::/0"), "0 permit tcp host 2001:db8::1 any");
    EXPECT_EQ(again(ACL_FAMILY_IPV6, "permit tcp any any established"), "0 permit tcp any any tcp-flags +ack");
}

TEST(acl_line_test, clears_the_ignored_bits_of_an_address) {
    EXPECT_EQ(again(ACL_FAMILY_IPV4, "permit ip 10.1.1.1/24 10.1.1.255/23"), "0 permit ipv4 10.1.1.0/24 10.1.0.0/23");
    EXPECT_EQ(again(ACL_FAMILY_IPV4, "permit ip 10.1.2.3 0.255.0.255 any"), "0 permit ipv4 10.0.2.0 0.255.0.255 any");
    EXPECT_EQ(again(ACL_FAMILY_IPV6, "permit tcp 2001:db8::7/33 any"), "0 permit tcp 2001:db8::/33 any");
    EXPECT_EQ(parsed(ACL_FAMILY_IPV6, "permit tcp 2::12/0 any").source.address, acl_address().address);
    EXPECT_EQ(parsed(ACL_FAMILY_IPV4, "permit tcp 1.2.3.4/0 any").source.address, acl_address().address);
}

TEST(acl_line_test, skips_remarks_and_comments) {
    for (const char* line : {"", "   ", "# words", "! words", "remark words", "10 remark words"}) {
        EXPECT_EQ(refusal(ACL_FAMILY_IPV4, line), "") << line;
    }
}

struct wrong_line {
    uint32_t family;
    const char* line;
    const char* named;
};

TEST(acl_line_test, names_the_wrong_word_and_the_expected_one) {
    const wrong_line lines[] = {
        {ACL_FAMILY_IPV4, "0 permit tcp any any", "sequence \"0\": expected a number from 1"},
        {ACL_FAMILY_IPV4, "4294967295 permit tcp any any", "sequence \"4294967295\""},
        {ACL_FAMILY_IPV4, "10 allow tcp any any", "\"allow\": expected permit or deny"},
        {ACL_FAMILY_IPV4, "10", "\"\": expected permit or deny"},
        {ACL_FAMILY_IPV4, "permit tpc any any", "\"tpc\": expected a protocol"},
        {ACL_FAMILY_IPV4, "permit 256 any any", "\"256\": expected a protocol, a number from 0 to 255"},
        {ACL_FAMILY_IPV4, "permit ipv6 any any", "\"ipv6\": expected a protocol"},
        {ACL_FAMILY_IPV4, "permit tcp", "\"\": expected the source"},
        {ACL_FAMILY_IPV4, "permit tcp 10.0.0.256 any", "\"10.0.0.256\": expected the source"},
        {ACL_FAMILY_IPV4, "permit tcp 2001:db8::1 any", "\"2001:db8::1\": expected the source"},
        {ACL_FAMILY_IPV6, "permit tcp any 10.0.0.1", "\"10.0.0.1\": expected the destination"},
        {ACL_FAMILY_IPV4, "permit tcp 10.0.0.0/33 any", "\"10.0.0.0/33\": expected a prefix length from 0 to 32"},
        {ACL_FAMILY_IPV4, "permit tcp 10.0.0.0/ any", "\"10.0.0.0/\": expected a prefix length"},
        {ACL_FAMILY_IPV6, "permit tcp 2001:db8::/129 any", "from 0 to 128"},
        {ACL_FAMILY_IPV4, "permit tcp host 10.0.0.0/8 any", "\"10.0.0.0/8\": a host address takes no prefix length"},
        {ACL_FAMILY_IPV4, "permit tcp any eq 65536 any", "\"65536\": expected a port, a number from 0 to 65535"},
        {ACL_FAMILY_IPV4, "permit tcp any eq -1 any", "\"-1\": expected a port"},
        {ACL_FAMILY_IPV4, "permit tcp any range 30 20 any", "range 30 20: range is reversed"},
        {ACL_FAMILY_IPV4, "permit tcp any range 30 any", "\"any\": expected a port"},
        {ACL_FAMILY_IPV4, "permit icmp any any eq 22", "\"eq\": a port requires protocol tcp or udp"},
        {ACL_FAMILY_IPV4, "permit ip any any established", "established: requires protocol tcp"},
        {ACL_FAMILY_IPV4, "permit tcp any any equals 22",
         "\"equals\": unknown option; the options are log, counter, established, tcp-flags, dscp, ttl, packet-length and fragment-offset"},
        {ACL_FAMILY_IPV6, "permit tcp any any fragment-offset 1",
         "\"fragment-offset\": unknown option; the options are log, counter, established, tcp-flags, dscp, ttl and packet-length"},
        {ACL_FAMILY_IPV4, "permit tcp any any dscp 64", "\"64\": expected a dscp, a number from 0 to 63"},
        {ACL_FAMILY_IPV4, "permit tcp any any ttl 256", "\"256\": expected a ttl, a number from 0 to 255"},
        {ACL_FAMILY_IPV4, "permit tcp any any fragment-offset 8192", "from 0 to 8191"},
        {ACL_FAMILY_IPV4, "permit tcp any any tcp-flags", "tcp-flags: expected at least one"},
        {ACL_FAMILY_IPV4, "permit tcp any any tcp-flags +sin", "\"+sin\": expected + or -"},
        {ACL_FAMILY_IPV4, "permit tcp any any tcp-flags +syn -syn",
         "\"-syn\": duplicate flag; expected each flag once"},
        {ACL_FAMILY_IPV4, "permit tcp any any log ttl 5 log", "\"log\": duplicate option; expected each option once"},
        {ACL_FAMILY_IPV4, "permit tcp any any ttl range 5 64 ttl 7", "\"ttl\": duplicate option"},
        {ACL_FAMILY_IPV4, "permit tcp any any tcp-flags +syn established", "\"established\": duplicate option"},
        {ACL_FAMILY_IPV6, "permit tcp any any counter a counter b", "\"counter\": duplicate option"},
        {ACL_FAMILY_IPV4, "permit tcp any any counter a/b", "counter \"a/b\": expected a name"},
        {ACL_FAMILY_IPV4, "permit tcp any any counter", "counter \"\": expected a name"},
    };
    for (const wrong_line& row : lines) {
        EXPECT_THAT(refusal(row.family, row.line), HasSubstr(row.named)) << row.line;
    }
}

TEST(acl_line_test, a_wrong_word_is_shown_without_control_characters) {
    const std::string error = refusal(ACL_FAMILY_IPV4, std::string("permit tcp \033[31m") + std::string(500, 'x'));
    EXPECT_EQ(error.find('\033'), std::string::npos);
    EXPECT_LT(error.size(), 250U);
}

std::vector<acl_rule> numbered(std::initializer_list<uint32_t> numbers) {
    std::vector<acl_rule> rules;
    for (const uint32_t number : numbers) {
        rules.emplace_back().sequence = number;
    }
    return rules;
}

TEST(acl_line_test, numbers_entries_in_steps_of_ten_and_sorts_them) {
    std::vector<acl_rule> rules = numbered({0, 0, 5, 0, 100});
    std::string error;
    ASSERT_TRUE(acl_number_rules(rules, error)) << error;
    std::vector<uint32_t> numbers;
    for (const acl_rule& rule : rules) {
        numbers.push_back(rule.sequence);
    }
    EXPECT_EQ(numbers, (std::vector<uint32_t>{5, 10, 15, 20, 100}));
}

TEST(acl_line_test, names_a_duplicate_number) {
    std::vector<acl_rule> rules = numbered({10, 20, 10});
    std::string error;
    EXPECT_FALSE(acl_number_rules(rules, error));
    EXPECT_EQ(error, "duplicate sequence number 10");
}

}  // namespace
