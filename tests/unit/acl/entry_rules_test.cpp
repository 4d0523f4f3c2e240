/// The rules made from single records: each field of both families, each operator, each service.
#include <string>
#include <vector>

#include "../common/acl_entry_text.h"
#include "acl/acl_family.h"
#include "acl_test.h"

namespace {

constexpr int operator_codes = 7;  // the six operators and an invalid code

struct condition_fields {
    std::string operation;
    std::string first;
    std::string second;
};

/// A condition with every operator and each pair of numbers.
std::vector<std::string> by_operator(const std::string& before, const condition_fields& fields,
                                     const std::vector<std::pair<int, int>>& pairs) {
    std::vector<std::string> cases;
    for (int code = 0; code < operator_codes; code++) {
        for (const auto& [first, second] : pairs) {
            cases.push_back(before + fields.operation + '=' + std::to_string(code) + ' ' + fields.first + '=' +
                            std::to_string(first) + ' ' + fields.second + '=' + std::to_string(second));
        }
    }
    return cases;
}

const std::vector<std::pair<int, int>> plain_pairs = {{5, 9}, {65535, 0}};
const std::vector<std::pair<int, int>> byte_pairs = {{5, 9}, {255, 0}};
const std::vector<std::pair<int, int>> service_pairs = {{21, 22},   {22, 22},   {23, 20},   {829, 831},
                                                        {830, 830}, {831, 900}, {65535, 0}, {0, 65535}};

class entry_rules_test : public acl_test {
  protected:
    entry_rules_test() { fake_platform::set_acl_action(7, "capture"); }

    /// Each case with its rule for both services of the family; "|" marks both ends of a rule's line.
    static std::string rules_of(const acl_family& family, const record_descriptor* descriptor, const std::string& base,
                                const std::vector<std::string>& cases) {
        std::string text = "every entry: " + base + "\n";
        for (const std::string& changes : cases) {
            text += changes + '\n';
            const std::string record = acl_entry_text(descriptor, base + ' ' + changes).record();
            for (const uint32_t type : {family.ssh_type, family.netconf_type}) {
                text += "  " + std::to_string(type) + " |" + rule_of(family, record, type) + "|\n";
            }
        }
        return text;
    }

    static std::string rule_of(const acl_family& family, const std::string& record, uint32_t type) {
        char* bytes = nullptr;
        size_t size = 0;
        FILE* stream = open_memstream(&bytes, &size);
        EXPECT_EQ(family.convert(record.data(), record.size(), stream, type), PLATFORM_OK);
        fclose(stream);
        std::string rule(bytes, size);
        free(bytes);
        if (!rule.empty()) {
            EXPECT_EQ(rule.back(), '\n');
            rule.pop_back();
        }
        return rule;
    }
};

void append(std::vector<std::string>& cases, const std::vector<std::string>& more) {
    cases.insert(cases.end(), more.begin(), more.end());
}

/// Flags that must be set, that are only masked, both and neither, and the two bits that are not flags.
void append_flags(std::vector<std::string>& cases, const condition_fields& fields) {
    for (int code = 0; code < 4; code++) {
        for (const auto& [flags, mask] : {std::pair{2, 18}, {18, 2}, {255, 255}, {0, 63}, {1, 192}}) {
            cases.push_back(fields.operation + '=' + std::to_string(code) + ' ' + fields.first + '=' +
                            std::to_string(flags) + ' ' + fields.second + '=' + std::to_string(mask));
        }
    }
}

void append_protocols(std::vector<std::string>& cases, const std::string& operation, const std::string& protocol) {
    for (int code = 0; code < 3; code++) {
        for (const int number : {0, 6, 17, 256, 512, 513}) {
            cases.push_back(operation + '=' + std::to_string(code) + ' ' + protocol + '=' + std::to_string(number));
        }
    }
}

}  // namespace

TEST_F(entry_rules_test, ipv4_entries) {
    std::vector<std::string> cases = {"SequenceNumber=10", "Grant=0",     "Grant=2",       "Grant=7",
                                      "LogOption=1",       "LogOption=2", "CounterName=c", "CounterName="};
    append_protocols(cases, "ProtocolOperator", "Protocol");
    for (const char* end : {"Source", "Destination"}) {
        for (const char* wildcard :
             {"0.0.0.0", "0.0.0.1", "0.0.255.255", "0.255.0.255", "127.255.255.255", "255.0.0.0", "255.255.255.255"}) {
            cases.push_back(std::string(end) + "Address=10.1.2.3 " + end + "AddressMask=" + wildcard);
        }
    }
    append(cases, by_operator("", {"SourceOperator", "SourcePort1", "SourcePort2"}, plain_pairs));
    append(cases, by_operator("", {"DestinationOperator", "DestinationPort1", "DestinationPort2"}, service_pairs));
    append(cases, by_operator("DSCPPresent=1 ", {"DSCPOperator", "DSCP", "DSCP2"}, byte_pairs));
    append(cases, by_operator("", {"DSCPOperator", "DSCP", "DSCP2"}, {{5, 9}}));
    cases.push_back("DSCPPresent=1 DSCPOperator=255 DSCP=5 DSCP2=9");
    append_flags(cases, {"TCPFlagsOperator", "TCPFlags", "TCPFlagsMask"});
    append(cases, by_operator("", {"PacketLengthOperator", "PacketLength1", "PacketLength2"}, plain_pairs));
    append(cases, by_operator("", {"TTLOperator", "TTL1", "TTL2"}, plain_pairs));
    append(cases, by_operator("", {"FragmentOffsetOperator", "FragmentOffset1", "FragmentOffset2"}, plain_pairs));
    for (int code = 0; code < operator_codes; code++) {
        const std::string is_code = "Operator=" + std::to_string(code) + ' ';
        cases.push_back(
            "Source" + is_code + "SourcePort1=1 SourcePort2=2 Destination" + is_code +
            "DestinationPort1=22 DestinationPort2=830 LogOption=1 CounterName=c DSCPPresent=1 DSCP=3 DSCP2=4 "
            "DSCP" +
            is_code + "TCPFlags" + is_code + "TCPFlags=5 TCPFlagsMask=7 PacketLength" + is_code +
            "PacketLength1=8 PacketLength2=9 TTL" + is_code + "TTL1=10 TTL2=11 FragmentOffset" + is_code +
            "FragmentOffset1=12 FragmentOffset2=13");
    }
    expect_golden("acl/golden/ipv4_entries.rules",
                  rules_of(ipv4_acl_family, acl_service_ipv4_entry_descriptor(),
                           "Grant=1 ProtocolOperator=1 Protocol=6 SourceAddressMask=255.255.255.255 "
                           "DestinationAddressMask=255.255.255.255",
                           cases));
}

TEST_F(entry_rules_test, ipv6_entries) {
    std::vector<std::string> cases = {"SequenceNumber=10",     "IsPacketAllowOrDeny=0", "IsPacketAllowOrDeny=2",
                                      "IsPacketAllowOrDeny=7", "IsLogOption=1",         "IsLogOption=2",
                                      "CounterName=c",         "CounterName="};
    append_protocols(cases, "IsProtocolOperator", "IsIPV6ProtocolType");
    for (const std::string end : {"Source", "Destination"}) {
        for (const char* mask : {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "ffff:ffff::", "ffff::ffff", "::"}) {
            for (const char* length : {"0", "32", "128"}) {
                cases.push_back("Is" + end + "AddressInNumbers=2001:db8::1 " + end + "Mask=" + mask + " Is" + end +
                                "AddressPrefixLength=" + length);
            }
            cases.push_back(end + "Mask=" + mask + " Is" + end + "AddressPrefixLength=32");
        }
    }
    append(cases, by_operator("", {"IsSourceOperator", "IsSourcePort1", "IsSourcePort2"}, plain_pairs));
    append(cases,
           by_operator("", {"IsDestinationOperator", "IsDestinationPort1", "IsDestinationPort2"}, service_pairs));
    append_flags(cases, {"IsTCPBitsOperator", "IsTCPBits", "IsTCPBitsMask"});
    append(cases, by_operator("IsDSCPPresent=1 ", {"DSCPOperator", "IsDSCPValu", "IsDSCPValu2"}, byte_pairs));
    append(cases, by_operator("", {"DSCPOperator", "IsDSCPValu", "IsDSCPValu2"}, {{5, 9}}));
    cases.emplace_back("IsDSCPPresent=1 DSCPOperator=255 IsDSCPValu=5 IsDSCPValu2=9");
    append(cases, by_operator("", {"IsPacketLengthOperator", "IsPacketLengthStart", "IsPacketLengthEnd"}, plain_pairs));
    append(cases, by_operator("", {"IsTimeToLiveOperator", "IsTimeToLiveStart", "IsTimeToLiveEnd"}, plain_pairs));
    for (int code = 0; code < operator_codes; code++) {
        const std::string is_code = "Operator=" + std::to_string(code) + ' ';
        cases.push_back("IsSource" + is_code + "IsSourcePort1=1 IsSourcePort2=2 IsDestination" + is_code +
                        "IsDestinationPort1=830 IsDestinationPort2=831 IsLogOption=1 CounterName=c IsTCPBits" +
                        is_code + "IsTCPBits=5 IsTCPBitsMask=7 IsDSCPPresent=1 DSCP" + is_code +
                        "IsDSCPValu=3 IsDSCPValu2=4 IsPacketLength" + is_code +
                        "IsPacketLengthStart=8 IsPacketLengthEnd=9 IsTimeToLive" + is_code +
                        "IsTimeToLiveStart=10 IsTimeToLiveEnd=11");
    }
    expect_golden("acl/golden/ipv6_entries.rules",
                  rules_of(ipv6_acl_family, acl_service_ipv6_entry_descriptor(),
                           "IsPacketAllowOrDeny=1 IsProtocolOperator=1 IsIPV6ProtocolType=6", cases));
}
