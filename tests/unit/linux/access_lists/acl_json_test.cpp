#include "linux/access_lists/acl_json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::HasSubstr;

class acl_json_test : public testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_EQ(acl_service_start(), PLATFORM_OK); }

    static control_json json(const std::string& text) {
        std::string error;
        const auto document = control_json_parse(text, error);
        EXPECT_TRUE(document.has_value()) << error;
        return document.value_or(control_json());
    }

    static acl_rule rule_of(uint32_t family, const std::string& text) {
        acl_stored_entry entry = {};
        std::string error;
        EXPECT_TRUE(acl_entry_from_json(family, json(text), entry, error)) << error;
        acl_rule rule;
        EXPECT_EQ(acl_decode_rule(family, entry, rule), PLATFORM_OK);
        return rule;
    }

    static std::string refusal(uint32_t family, const std::string& text) {
        acl_stored_entry entry = {};
        std::string error;
        EXPECT_FALSE(acl_entry_from_json(family, json(text), entry, error)) << text;
        return error;
    }
};

constexpr char full_ipv4[] =
    R"({"SequenceNumber":10,"Grant":"permit","ProtocolOperator":1,"Protocol":6,"SourceAddress":"10.0.0.0",)"
    R"("SourceAddressMask":"0.255.255.255","DestinationAddress":"0.0.0.0","DestinationAddressMask":"255.255.255.255",)"
    R"("SourceOperator":"range","SourcePort1":1,"SourcePort2":2,"DestinationOperator":"eq","DestinationPort1":22,)"
    R"("DestinationPort2":0,"LogOption":"log","CounterName":"c1","DSCPPresent":true,"DSCP":46,"DSCP2":0,)"
    R"("DSCPOperator":1,"TCPFlagsOperator":"match_all","TCPFlags":2,"TCPFlagsMask":18,"PacketLengthOperator":"lt",)"
    R"("PacketLength1":1500,"PacketLength2":0,"TTLOperator":"gt","TTL1":1,"TTL2":0,"FragmentOffsetOperator":"ne",)"
    R"("FragmentOffset1":3,"FragmentOffset2":0})";

TEST_F(acl_json_test, reads_every_field) {
    const acl_rule rule = rule_of(ACL_FAMILY_IPV4, full_ipv4);
    EXPECT_EQ(rule.sequence, 10U);
    EXPECT_EQ(rule.action, 1);
    EXPECT_EQ(rule.source.address[0], 10);
    EXPECT_EQ(rule.source.mask[1], 255);
    EXPECT_EQ(rule.conditions[ACL_SOURCE_PORT].operation, ACL_RANGE);
    EXPECT_EQ(rule.conditions[ACL_SOURCE_PORT].second, 2U);
    EXPECT_EQ(rule.conditions[ACL_DESTINATION_PORT].first, 22U);
    EXPECT_TRUE(rule.log);
    EXPECT_EQ(rule.counter, "c1");
    EXPECT_EQ(rule.conditions[ACL_DSCP].first, 46U);
    EXPECT_EQ(rule.tcp_flags_operation, 1);
    EXPECT_EQ(rule.conditions[ACL_PACKET_LENGTH].operation, ACL_LT);
    EXPECT_EQ(rule.conditions[ACL_TTL].operation, ACL_GT);
    EXPECT_EQ(rule.conditions[ACL_FRAGMENT_OFFSET].operation, ACL_NE);
}

TEST_F(acl_json_test, round_trips) {
    const std::string full_ipv6 =
        R"({"SequenceNumber":7,"IsPacketAllowOrDeny":"deny","IsProtocolOperator":0,"IsIPV6ProtocolType":513,)"
        R"("IsSourceAddressInNumbers":"2001:db8::","IsSourceAddressPrefixLength":32,"SourceMask":"ffff:ffff::",)"
        R"("IsDestinationAddressInNumbers":"::","IsDestinationAddressPrefixLength":0,"DestinationMask":"::",)"
        R"("CounterName":"","IsTimeToLiveOperator":"range","IsTimeToLiveStart":1,"IsTimeToLiveEnd":9})";
    for (const auto& [family, text] :
         {std::pair<uint32_t, std::string>{ACL_FAMILY_IPV4, full_ipv4}, {ACL_FAMILY_IPV6, full_ipv6}}) {
        acl_stored_entry entry = {};
        std::string error;
        ASSERT_TRUE(acl_entry_from_json(family, json(text), entry, error)) << error;
        control_json written;
        ASSERT_EQ(acl_entry_to_json(family, entry, written), PLATFORM_OK);
        const control_json given = json(text);
        for (const auto& [name, value] : given.items()) {
            EXPECT_EQ(written[name], value) << name;
        }
    }
}

TEST_F(acl_json_test, accepts_enumerations_and_flags_as_numbers) {
    const acl_rule rule =
        rule_of(ACL_FAMILY_IPV4, R"({"Grant":1,"DestinationOperator":5,"DestinationPort1":1,"DestinationPort2":9,)"
                                 R"("LogOption":1,"DSCPPresent":1,"DSCPOperator":2,"DSCP":7,"TCPFlagsOperator":2})");
    EXPECT_EQ(rule.action, 1);
    EXPECT_EQ(rule.conditions[ACL_DESTINATION_PORT].operation, ACL_RANGE);
    EXPECT_TRUE(rule.log);
    EXPECT_EQ(rule.conditions[ACL_DSCP].operation, ACL_GT);
    EXPECT_EQ(rule.tcp_flags_operation, 2);
}

TEST_F(acl_json_test, names_the_wrong_field_and_the_expected_value) {
    struct wrong_entry {
        uint32_t family;
        const char* text;
        const char* named;
    };
    const wrong_entry entries[] = {
        {ACL_FAMILY_IPV4, "[]", "expected an object with at least the field Grant"},
        {ACL_FAMILY_IPV4, R"({"Protocol":6})", "at least the field Grant"},
        {ACL_FAMILY_IPV6, R"({"Grant":"permit"})", "at least the field IsPacketAllowOrDeny"},
        {ACL_FAMILY_IPV4, R"({"Grant":"permit","Colour":1})", "\"Colour\": unknown field"},
        {ACL_FAMILY_IPV4, R"({"Grant":"allow"})", "Grant: \"allow\"; expected one of deny, permit, or its number"},
        {ACL_FAMILY_IPV4, R"({"Grant":2})", "Grant: 2; expected one of"},
        {ACL_FAMILY_IPV4, R"({"Grant":1,"SourceOperator":"about"})",
         "SourceOperator: \"about\"; expected one of none, eq, gt, lt, ne, range"},
        {ACL_FAMILY_IPV4, R"({"Grant":1,"SourcePort1":65536})",
         "SourcePort1: 65536; expected a number from 0 to 65535"},
        {ACL_FAMILY_IPV4, R"({"Grant":1,"SourcePort1":-1})", "SourcePort1: -1"},
        {ACL_FAMILY_IPV4, R"({"Grant":1,"SourcePort1":1.5})", "SourcePort1: 1.5"},
        {ACL_FAMILY_IPV4, R"({"Grant":1,"DSCPOperator":256})", "DSCPOperator: 256; expected a number from 0 to 255"},
        {ACL_FAMILY_IPV4, R"({"Grant":1,"DSCP":64})", "DSCP: 64; expected a number from 0 to 63"},
        {ACL_FAMILY_IPV6, R"({"IsPacketAllowOrDeny":1,"IsDSCPValu2":64})", "IsDSCPValu2: 64; expected a number from 0"},
        {ACL_FAMILY_IPV4, R"({"Grant":1,"TTL1":256})", "TTL1: 256; expected a number from 0 to 255"},
        {ACL_FAMILY_IPV4, R"({"Grant":1,"SourceAddress":"10.0.0"})", "SourceAddress: \"10.0.0\"; expected an IPv4"},
        {ACL_FAMILY_IPV4, R"({"Grant":1,"SourceAddress":7})", "SourceAddress: 7; expected an IPv4 address"},
        {ACL_FAMILY_IPV6, R"({"IsPacketAllowOrDeny":1,"SourceMask":"10.0.0.1"})", "SourceMask: \"10.0.0.1\""},
        {ACL_FAMILY_IPV4, R"({"Grant":1,"DSCPPresent":2})", "DSCPPresent: 2; expected true or false"},
        {ACL_FAMILY_IPV4, R"({"Grant":1,"CounterName":"a b"})", "CounterName: \"a b\"; expected a name"},
        {ACL_FAMILY_IPV4, R"({"Grant":1,"SourceOperator":"range","SourcePort1":9,"SourcePort2":3})",
         "SourcePort1, SourcePort2: range is reversed"},
        {ACL_FAMILY_IPV4, R"({"Grant":1,"TTLOperator":5,"TTL1":9})", "TTL1, TTL2: range is reversed"},
        {ACL_FAMILY_IPV6, R"({"IsPacketAllowOrDeny":1,"IsSourceOperator":5,"IsSourcePort1":2,"IsSourcePort2":1})",
         "range is reversed"},
    };
    for (const wrong_entry& row : entries) {
        EXPECT_THAT(refusal(row.family, row.text), HasSubstr(row.named)) << row.text;
    }
}

}  // namespace
