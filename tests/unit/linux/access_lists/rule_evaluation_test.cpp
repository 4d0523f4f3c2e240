#include "linux/access_lists/rule_evaluation.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <string>

namespace {

rule_connection connection_from(const char* source, uint16_t port = 22) {
    rule_connection connection = {.is_ipv6 = std::string_view(source).find(':') != std::string_view::npos,
                                  .source_port = 50000,
                                  .destination_port = port};
    const int family = connection.is_ipv6 ? AF_INET6 : AF_INET;
    EXPECT_EQ(inet_pton(family, source, connection.source.data()), 1);
    EXPECT_EQ(inet_pton(family, connection.is_ipv6 ? "2001:db8::1" : "192.0.2.1", connection.destination.data()), 1);
    return connection;
}

constexpr char ipv4_begin[] =
    "table ip norvossh_v4acl {\n}\nflush table ip norvossh_v4acl\n\ntable ip norvossh_v4acl {\n        chain input {\n"
    "                type filter hook input priority 0; policy accept;\n               ct state established accept\n";
constexpr char ipv4_end[] =
    "        ip saddr & 0.0.0.0 == 0.0.0.0 ip daddr & 0.0.0.0 == 0.0.0.0  tcp dport 22 drop\n        }\n}\n";

bool admits(const std::string& rule, const char* source = "192.0.2.7", uint16_t port = 22) {
    return rules_admit(ipv4_begin + rule + '\n' + ipv4_end, connection_from(source, port));
}

TEST(rules_admit, an_ipv4_connection_is_compared_with_each_condition) {
    const struct {
        const char* rule;
        bool admits;
    } rows[] = {
        {"", false},
        {"                ip saddr 192.0.2.7 ip daddr 0.0.0.0/0 tcp dport 22 accept ", true},
        {"                ip saddr 192.0.2.8 ip daddr 0.0.0.0/0 tcp dport 22 accept ", false},
        {"                ip saddr 192.0.2.0/24 ip daddr 0.0.0.0/0 tcp dport 22 accept ", true},
        {"                ip saddr 192.0.2.8/29 ip daddr 0.0.0.0/0 tcp dport 22 accept ", false},
        {"                ip saddr 0.0.0.0/0 ip daddr 192.0.2.1 tcp dport 22 accept ", true},
        {"                ip saddr 0.0.0.0/0 ip daddr 192.0.2.2 tcp dport 22 accept ", false},
        {"                ip saddr 0.0.0.0/0 tcp sport 1024-65535 ip daddr 0.0.0.0/0 tcp dport 22 accept ", true},
        {"                ip saddr 0.0.0.0/0 tcp sport 1024-4000 ip daddr 0.0.0.0/0 tcp dport 22 accept ", false},
        {"                ip saddr 0.0.0.0/0 tcp sport gt 50000 ip daddr 0.0.0.0/0 tcp dport 22 accept ", false},
        {"                ip saddr 0.0.0.0/0 tcp sport lt 50001 ip daddr 0.0.0.0/0 tcp dport 22 accept ", true},
        {"                ip saddr 0.0.0.0/0 tcp sport ne 50000 ip daddr 0.0.0.0/0 tcp dport 22 accept ", false},
        {"                ip saddr 0.0.0.0/0 tcp sport eq 50000 ip daddr 0.0.0.0/0 tcp dport 22 accept ", true},
        // A connection begins with a packet that has only the flag SYN.
        {"                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 tcp flags & 18 == 2 tcp dport 22 accept ", true},
        {"                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 tcp flags & 16 == 16 tcp dport 22 accept ", false},
        {"                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 log counter tcp dport 22 accept ", true},
        {"                ip saddr 192.0.2.7 ip daddr 0.0.0.0/0 tcp dport 22 drop \n"
         "                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 tcp dport 22 accept ",
         false},
        // Nobody knows which packets will come, so that these neither certainly admit nor certainly drop.
        {"                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 ip ttl gt 250 tcp dport 22 accept ", true},
        {"                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 ip dscp 1-3 tcp dport 22 drop \n"
         "                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 tcp dport 22 accept ",
         true},
        {"                ip saddr 10.0.0.1 ip daddr 0.0.0.0/0 ip length eq 60 tcp dport 22 accept ", false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(admits(row.rule), row.admits) << row.rule;
    }
}

TEST(rules_admit, other_ports_pass_unless_a_rule_closes_them) {
    EXPECT_TRUE(admits("", "192.0.2.7", 830));
    EXPECT_FALSE(
        admits("                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 tcp dport ne 22 drop ", "192.0.2.7", 830));
    EXPECT_TRUE(rules_admit("", connection_from("192.0.2.7"))) << "no list";
}

TEST(rules_admit, an_ipv6_connection_is_compared_with_each_condition) {
    const struct {
        const char* rule;
        bool admits;
    } rows[] = {
        {"               ip6 saddr 2001:db8::/32 ip6 daddr ::/0 tcp dport 22 accept ", true},
        {"               ip6 saddr 2001:db8:1::/48 ip6 daddr ::/0 tcp dport 22 accept ", false},
        {"                ip6 saddr 2001:db8::7 ip6 daddr ::/0 tcp dport 22 accept ", true},
        {"                ip6 saddr ::/0 ip6 daddr 2001:db8::2 tcp dport 22 accept ", false},
        {"                ip6 saddr ::/0 ip6 daddr ::/0 ip6 hoplimit lt 5 tcp dport 22 accept ", true},
        {"", false},
    };
    constexpr char end[] = "        ip6 saddr & :: == :: ip6 daddr & :: == :: tcp dport 22 drop\n";
    for (const auto& row : rows) {
        EXPECT_EQ(rules_admit(row.rule + std::string("\n") + end, connection_from("2001:db8::7")), row.admits)
            << row.rule;
    }
}

}  // namespace
