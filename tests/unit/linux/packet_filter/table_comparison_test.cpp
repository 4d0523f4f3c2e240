#include "linux/packet_filter/table_comparison.h"

#include <arpa/inet.h>
#include <linux/netfilter.h>

#include "platform/acl_service.h"
#include "unit/linux/vrf/vrf_namespace_support.h"

using platform_test::add_vrf;
using platform_test::nft_in;
using platform_test::own_network_namespace;
using platform_test::remove_vrf;
using platform_test::write_file;

namespace {

constexpr char table[] = "norvossh_v4acl";
constexpr char commands[] =
    "table ip norvossh_v4acl {\n}\n"
    "flush table ip norvossh_v4acl\n\n"
    "table ip norvossh_v4acl {\n"
    "        chain input {\n"
    "                type filter hook input priority 0; policy accept;\n"
    "               ct state established accept\n"
    "        ip saddr 10.0.0.0/8 tcp dport 22 accept\n"
    "        ip saddr & 0.0.0.0 == 0.0.0.0 ip daddr & 0.0.0.0 == 0.0.0.0  tcp dport 22 drop\n"
    "        }\n}\n";
constexpr char limit_commands[] =
    "table inet norvo_limits {\n chain input {\n"
    "  type filter hook input priority 10; policy accept;\n"
    "  tcp dport { 22, 830 } limit rate over 60/minute burst 60 packets counter reject with tcp reset\n }\n}\n";

class table_comparison_test : public testing::Test {
  protected:
    void SetUp() override {
        add_vrf("red");
        own = own_network_namespace();
    }
    void TearDown() override {
        EXPECT_EQ(own, own_network_namespace());
        remove_vrf("red");
    }

    static void load(const std::string& text) {
        write_file("/tmp/rules.nft", text);
        EXPECT_EQ(nft_in("red", "-f /tmp/rules.nft 2>&1"), "");
    }

    static packet_filter_finding compare(const char* wanted) {
        const packet_filter_table place = {"red", ACL_FAMILY_IPV4, table, wanted};
        packet_filter_finding finding = {};
        EXPECT_EQ(packet_filter_compare(&place, 1, &finding), PLATFORM_OK);
        return finding;
    }

    static packet_filter_verdict compare_limits() {
        const table_maker maker = [] { return run_nft_here(limit_commands); };
        std::vector<packet_filter_finding> findings;
        EXPECT_EQ(compare_tables({{"red", NFPROTO_INET, "norvo_limits", &maker}}, findings), PLATFORM_OK);
        return findings.size() == 1 ? findings[0].verdict : PACKET_FILTER_UNKNOWN;
    }

    ino_t own = 0;
};

TEST_F(table_comparison_test, rules_that_were_loaded_are_as_wanted) {
    load(commands);
    const packet_filter_finding finding = compare(commands);
    EXPECT_EQ(finding.verdict, PACKET_FILTER_AS_WANTED);
    EXPECT_EQ(finding.present, 3U);
    EXPECT_EQ(finding.wanted, 3U);
    load(commands);
    EXPECT_EQ(compare(commands).verdict, PACKET_FILTER_AS_WANTED) << "loaded again";
}

TEST_F(table_comparison_test, every_change_of_a_table_is_found) {
    for (const char* change :
         {"delete table ip norvossh_v4acl\n", "flush ruleset\n", "flush table ip norvossh_v4acl\n",
          "add rule ip norvossh_v4acl input tcp dport 22 accept\n",
          "insert rule ip norvossh_v4acl input ip saddr 192.0.2.1 accept\n",
          "flush chain ip norvossh_v4acl input\ndelete chain ip norvossh_v4acl input\n",
          "add chain ip norvossh_v4acl other { type filter hook input priority -1; policy drop; }\n",
          "chain ip norvossh_v4acl input { policy drop; }\n", "add table ip norvossh_v4acl { flags dormant; }\n",
          "add set ip norvossh_v4acl hosts { type ipv4_addr; }\n"}) {
        load(std::string("flush ruleset\n") + commands);
        ASSERT_EQ(compare(commands).verdict, PACKET_FILTER_AS_WANTED);
        load(change);
        EXPECT_EQ(compare(commands).verdict, PACKET_FILTER_DIFFERS) << change;
    }
}

TEST_F(table_comparison_test, one_rule_less_is_found) {
    load(commands);
    ASSERT_TRUE(
        platform_test::run("ip netns exec vrf-red nft delete rule ip norvossh_v4acl input handle "
                           "$(ip netns exec vrf-red nft -a list ruleset | sed -n 's/.*10.0.0.0.*handle //p')"));
    const packet_filter_finding finding = compare(commands);
    EXPECT_EQ(finding.verdict, PACKET_FILTER_DIFFERS);
    EXPECT_EQ(finding.present, 2U);
    EXPECT_EQ(finding.wanted, 3U);
}

TEST_F(table_comparison_test, what_filters_nothing_counts_as_no_table) {
    EXPECT_EQ(compare(nullptr).verdict, PACKET_FILTER_AS_WANTED);
    load(commands);
    EXPECT_EQ(compare(nullptr).verdict, PACKET_FILTER_DIFFERS);
    EXPECT_EQ(compare(nullptr).present, 3U);
    load("flush table ip norvossh_v4acl\n");
    EXPECT_EQ(compare(nullptr).verdict, PACKET_FILTER_AS_WANTED);
    load("chain ip norvossh_v4acl input { policy drop; }\n");
    EXPECT_EQ(compare(nullptr).verdict, PACKET_FILTER_DIFFERS);
}

TEST_F(table_comparison_test, counters_and_numbers_of_sets_do_not_count) {
    load(limit_commands);
    EXPECT_EQ(compare_limits(), PACKET_FILTER_AS_WANTED);
    load(
        "table ip other {\n chain input {\n  type filter hook input priority 0;\n  tcp sport { 1, 2 } accept\n }\n}\n"
        "add rule inet norvo_limits input tcp sport { 4, 5 } accept\n");
    EXPECT_EQ(compare_limits(), PACKET_FILTER_DIFFERS);
    load(std::string("flush table inet norvo_limits\n") + limit_commands);
    EXPECT_EQ(compare_limits(), PACKET_FILTER_AS_WANTED);
    EXPECT_FALSE(platform_test::reachable("red", 22));
    EXPECT_EQ(compare_limits(), PACKET_FILTER_AS_WANTED);
    std::string others = limit_commands;
    load("flush table inet norvo_limits\n" + others.replace(others.find("830"), 3, "831"));
    EXPECT_EQ(compare_limits(), PACKET_FILTER_DIFFERS) << "another element of a set";
}

TEST_F(table_comparison_test, what_cannot_be_made_or_entered_is_unknown) {
    EXPECT_EQ(compare("table ip norvossh_v4acl { nonsense }\n").verdict, PACKET_FILTER_UNKNOWN);
    const packet_filter_table place = {"nowhere", ACL_FAMILY_IPV4, table, nullptr};
    packet_filter_finding finding = {};
    EXPECT_EQ(packet_filter_compare(&place, 1, &finding), PLATFORM_OK);
    EXPECT_EQ(finding.verdict, PACKET_FILTER_UNKNOWN);
}

TEST_F(table_comparison_test, a_thousand_rules_are_compared_whole) {
    std::string many = "table ip norvossh_v4acl {\n chain input {\n type filter hook input priority 0;\n";
    for (int i = 0; i < 1000; i++) {
        many += "  ip saddr 10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250) + " tcp dport 22 accept\n";
    }
    many += " }\n}\n";
    load(many);
    packet_filter_finding finding = compare(many.c_str());
    EXPECT_EQ(finding.verdict, PACKET_FILTER_AS_WANTED);
    EXPECT_EQ(finding.present, 1000U);
    std::string other = many;
    other.replace(other.find("10.0.3.249"), 10, "10.0.3.250");
    finding = compare(other.c_str());
    EXPECT_EQ(finding.verdict, PACKET_FILTER_DIFFERS);
    EXPECT_EQ(finding.present, finding.wanted);
}

TEST_F(table_comparison_test, commands_are_carried_out_in_the_vrf) {
    EXPECT_EQ(run_nft_in_vrf("red", limit_commands), PLATFORM_OK);
    EXPECT_EQ(compare_limits(), PACKET_FILTER_AS_WANTED);
    EXPECT_NE(run_nft_in_vrf("red", "nonsense\n"), PLATFORM_OK);
    EXPECT_NE(run_nft_in_vrf("nowhere", limit_commands), PLATFORM_OK);
}

}  // namespace
