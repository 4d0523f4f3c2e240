#include "acl/rule_conversion.h"

#include <cstdio>

#include "acl_test.h"

namespace {

class rule_conversion_test : public acl_test {
  protected:
    template <typename entry_type>
    static std::string converted(void (*convert)(const entry_type&, FILE*, uint32_t), const entry_type& entry,
                                 uint32_t type) {
        char* text = nullptr;
        size_t size = 0;
        FILE* stream = open_memstream(&text, &size);
        convert(entry, stream, type);
        fclose(stream);
        std::string line(text, size);
        free(text);
        return line;
    }

    static std::string rule(const acl_ipv4_entry& entry, uint32_t type = 0) {
        return converted(ssh_convert_ipv4_acl_rule, entry, type);
    }
    static std::string rule(const acl_ipv6_entry& entry, uint32_t type = 2) {
        return converted(ssh_convert_ipv6_acl_rule, entry, type);
    }

    static acl_ipv4_entry with_destination_port(int32_t operation, uint16_t port, uint16_t port2 = 0) {
        acl_ipv4_entry entry = ipv4_entry();
        entry.DestinationOperator = operation;
        entry.DestinationPort1 = port;
        entry.DestinationPort2 = port2;
        return entry;
    }

    const std::string any = "                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 ";
    const std::string any6 = "                ip6 saddr ::/0 ip6 daddr ::/0 ";
};

}  // namespace

TEST_F(rule_conversion_test, permits_any_tcp_to_the_ssh_port) {
    EXPECT_EQ(rule(ipv4_entry()), any + "tcp dport 22 accept \n");
}

TEST_F(rule_conversion_test, denies_any_protocol_from_a_host_to_the_netconf_port) {
    acl_ipv4_entry entry = ipv4_entry(deny);
    entry.ProtocolOperator = 0;
    entry.Protocol = ACL_PROTOCOL_ANY_IPV4;
    entry.SourceAddress = ipv4("10.1.1.1");
    entry.SourceAddressMask = 0;
    EXPECT_EQ(rule(entry, 1), "                ip saddr 10.1.1.1 ip daddr 0.0.0.0/0 tcp dport 830 drop \n");
}

TEST_F(rule_conversion_test, skips_other_protocols) {
    acl_ipv4_entry entry = ipv4_entry();
    entry.Protocol = 17;
    EXPECT_EQ(rule(entry), "");
    entry.ProtocolOperator = 0;
    EXPECT_EQ(rule(entry), "");
    entry.Protocol = ACL_PROTOCOL_ANY_IPV6;
    EXPECT_EQ(rule(entry), "");
    acl_ipv6_entry entry6 = ipv6_entry();
    entry6.IsIPV6ProtocolType = 17;
    EXPECT_EQ(rule(entry6), "");
}

TEST_F(rule_conversion_test, accepts_any_protocol_only_if_the_operator_is_not_equal) {
    acl_ipv4_entry entry = ipv4_entry();
    entry.Protocol = ACL_PROTOCOL_ANY_IPV4;
    EXPECT_EQ(rule(entry), "");
    entry.ProtocolOperator = 2;
    EXPECT_EQ(rule(entry), any + "tcp dport 22 accept \n");
    acl_ipv6_entry entry6 = ipv6_entry();
    entry6.IsIPV6ProtocolType = ACL_PROTOCOL_ANY_IPV6;
    EXPECT_EQ(rule(entry6), "");
    entry6.IsProtocolOperator = 0;
    EXPECT_EQ(rule(entry6), any6 + "tcp dport 22 accept \n");
}

TEST_F(rule_conversion_test, an_unknown_action_leaves_the_rule_without_a_verdict) {
    fake_platform::set_acl_action(7, "capture");
    EXPECT_EQ(rule(ipv4_entry(7)), any + "tcp dport 22 \n");
    fake_platform::set_acl_action(8, "permit");
    EXPECT_EQ(rule(ipv4_entry(8)), any + "tcp dport 22 accept \n");
}

TEST_F(rule_conversion_test, converts_wildcards_to_prefixes) {
    acl_ipv4_entry entry = ipv4_entry();
    entry.SourceAddress = ipv4("10.1.2.3");
    entry.SourceAddressMask = ipv4("0.0.0.255");
    EXPECT_EQ(rule(entry), "                ip saddr 10.1.2.3/24 ip daddr 0.0.0.0/0 tcp dport 22 accept \n");
    // Bits after the first one that is not compared are ignored.
    entry.SourceAddressMask = ipv4("0.255.0.255");
    EXPECT_EQ(rule(entry), "                ip saddr 10.1.2.3/8 ip daddr 0.0.0.0/0 tcp dport 22 accept \n");
}

TEST_F(rule_conversion_test, leaves_out_an_entry_whose_wildcard_cannot_be_expressed) {
    acl_ipv4_entry entry = ipv4_entry();
    entry.SourceAddressMask = ipv4("255.0.0.0");
    EXPECT_EQ(rule(entry), "");
    EXPECT_TRUE(fake_platform::debugged("ssh_convert_ipv4_acl_rule: NFtables doesn't support wildcard bits"));
    fake_platform::clear_reports();
    // For the destination there is no message.
    entry = ipv4_entry();
    entry.DestinationAddressMask = ipv4("255.0.0.0");
    EXPECT_EQ(rule(entry), "");
    EXPECT_TRUE(fake_platform::debug_texts().empty());
}

TEST_F(rule_conversion_test, matches_the_destination_port_against_the_service) {
    EXPECT_EQ(rule(with_destination_port(1, 22)), any + "tcp dport 22 accept \n");
    EXPECT_EQ(rule(with_destination_port(1, 23)), "");
    EXPECT_EQ(rule(with_destination_port(2, 22)), any + "tcp dport 22 accept \n");
    EXPECT_EQ(rule(with_destination_port(2, 23)), "");
    EXPECT_EQ(rule(with_destination_port(3, 22)), any + "tcp dport 22 accept \n");
    EXPECT_EQ(rule(with_destination_port(3, 21)), "");
    EXPECT_EQ(rule(with_destination_port(4, 22)), any + "tcp dport ne 22 accept \n");
    EXPECT_EQ(rule(with_destination_port(4, 80)), any + "tcp dport 22 accept \n");
    EXPECT_EQ(rule(with_destination_port(5, 20, 21)), any + "tcp dport 22 accept \n");
    EXPECT_EQ(rule(with_destination_port(5, 23, 30)), "");
    EXPECT_EQ(rule(with_destination_port(6, 23)), any + "tcp dport 22 accept \n");
}

TEST_F(rule_conversion_test, compares_ssh_over_ipv6_with_the_netconf_port) {
    acl_ipv6_entry entry = ipv6_entry();
    entry.IsDestinationOperator = 1;
    entry.IsDestinationPort1 = 22;
    EXPECT_EQ(rule(entry, 2), "");
    entry.IsDestinationPort1 = 830;
    EXPECT_EQ(rule(entry, 2), any6 + "tcp dport 22 accept \n");
    EXPECT_EQ(rule(entry, 3), any6 + "tcp dport 830 accept \n");
    entry.IsDestinationOperator = 4;
    EXPECT_EQ(rule(entry, 2), any6 + "tcp dport ne 830 accept \n");
}

TEST_F(rule_conversion_test, writes_every_condition_in_its_place) {
    acl_ipv4_entry entry = ipv4_entry();
    char counter[] = "hits";
    entry.SourceOperator = 5;
    entry.SourcePort1 = 1024;
    entry.SourcePort2 = 2048;
    entry.TCPFlagsOperator = 1;
    entry.TCPFlags = 0xff;
    entry.TCPFlagsMask = 0xd2;
    entry.DSCPPresent = 1;
    entry.DSCPOperator = 5;
    entry.DSCP = 10;
    entry.DSCP2 = 20;
    entry.PacketLengthOperator = 2;
    entry.PacketLength1 = 100;
    entry.TTLOperator = 3;
    entry.TTL1 = 64;
    entry.FragmentOffsetOperator = 4;
    entry.FragmentOffset1 = 7;
    entry.LogOption = ACL_LOG;
    entry.CounterName = counter;
    EXPECT_EQ(rule(entry),
              "                ip saddr 0.0.0.0/0 tcp sport 1024-2048 ip daddr 0.0.0.0/0 tcp flags & 18 == 18 "
              "ip dscp 10-20 ip length gt 100 ip ttl lt 64 ip frag-off ne 7 log counter tcp dport 22 accept \n");
}

TEST_F(rule_conversion_test, writes_ipv6_conditions_with_ipv6_keywords) {
    acl_ipv6_entry entry = ipv6_entry(deny);
    entry.IsDSCPPresent = 1;
    entry.DSCPOperator = 1;
    entry.IsDSCPValu = 46;
    entry.IsPacketLengthOperator = 5;
    entry.IsPacketLengthStart = 1;
    entry.IsPacketLengthEnd = 9;
    entry.IsTimeToLiveOperator = 1;
    entry.IsTimeToLiveStart = 255;
    EXPECT_EQ(rule(entry), any6 + "ip6 dscp eq 46 ip6 length 1-9 ip6 hoplimit eq 255 tcp dport 22 drop \n");
}

TEST_F(rule_conversion_test, an_empty_counter_name_adds_no_counter) {
    acl_ipv4_entry entry = ipv4_entry();
    char counter[] = "";
    entry.CounterName = counter;
    EXPECT_EQ(rule(entry), any + "tcp dport 22 accept \n");
}

TEST_F(rule_conversion_test, writes_ipv6_addresses_in_four_forms) {
    acl_ipv6_entry entry = ipv6_entry();
    put_ipv6(entry.IsSourceAddressInNumbers, "2001:db8::1");
    put_ipv6(entry.SourceMask, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    EXPECT_EQ(rule(entry), "                ip6 saddr 2001:db8::1 ip6 daddr ::/0 tcp dport 22 accept \n");
    // One space less in front; the length follows the address directly.
    put_ipv6(entry.SourceMask, "ffff:ffff::");
    entry.IsSourceAddressPrefixLength = 32;
    EXPECT_EQ(rule(entry), "               ip6 saddr 2001:db8::1/32 ip6 daddr ::/0 tcp dport 22 accept \n");
    // If the length contradicts the mask, or the mask is not a prefix, the mask is written.
    entry.IsSourceAddressPrefixLength = 48;
    EXPECT_EQ(rule(entry), "               ip6 saddr 2001:db8::1 ffff:ffff:: ip6 daddr ::/0 tcp dport 22 accept \n");
    put_ipv6(entry.SourceMask, "ffff::ffff");
    EXPECT_EQ(rule(entry), "               ip6 saddr 2001:db8::1 ffff::ffff ip6 daddr ::/0 tcp dport 22 accept \n");
    // An address with a mask of length 0 is not written as "any".
    put_ipv6(entry.SourceMask, "::");
    entry.IsSourceAddressPrefixLength = 0;
    EXPECT_EQ(rule(entry), "               ip6 saddr 2001:db8::1/0 ip6 daddr ::/0 tcp dport 22 accept \n");
}

TEST_F(rule_conversion_test, prints_the_rule_in_debug) {
    rule(ipv4_entry());
    EXPECT_TRUE(fake_platform::debugged("NFT rule  = " + any + "tcp dport 22 accept "));
}
