/// All forms of an entry: a line or JSON object is converted to a record, and the record to a line and an object again.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../../common/acl_entry_text.h"
#include "golden.h"
#include "linux/access_lists/acl_json.h"
#include "linux/access_lists/acl_line.h"
#include "linux/datastore/record_json.h"

namespace {

class acl_forms_test : public testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_EQ(acl_service_start(), PLATFORM_OK); }

    static acl_stored_entry empty_entry(uint32_t family) {
        return {0, acl_entry_text(acl_entry_descriptor(family), "").record()};
    }

    static control_json raw_fields(uint32_t family, const acl_stored_entry& entry) {
        control_json json;
        EXPECT_EQ(record_to_json({acl_entry_descriptor(family), entry.record}, json), PLATFORM_OK);
        return json;
    }

    static control_json named_fields(uint32_t family, const acl_stored_entry& entry) {
        control_json json;
        EXPECT_EQ(acl_entry_to_json(family, entry, json), PLATFORM_OK);
        return json;
    }

    /// The fields of `json` that differ from those of an empty entry.
    static std::string difference(const control_json& json, const control_json& empty) {
        control_json kept = control_json::object();
        for (const auto& [name, value] : json.items()) {
            if (value != empty[name]) {
                kept[name] = value;
            }
        }
        return kept.dump();
    }

    /// The numbers of a record, its JSON form and its line, one per line.
    static std::string forms_of(uint32_t family, const acl_stored_entry& entry) {
        const acl_stored_entry empty = empty_entry(family);
        acl_rule rule;
        EXPECT_EQ(acl_decode_rule(family, entry, rule), PLATFORM_OK);
        acl_stored_entry again = {};
        EXPECT_EQ(acl_encode_rule(family, rule, again), PLATFORM_OK);
        return "  record " + difference(raw_fields(family, entry), raw_fields(family, empty)) + "\n  json   " +
               difference(named_fields(family, entry), named_fields(family, empty)) + "\n  line   " +
               acl_format_line(family, rule) + '\n' +
               (again.record == entry.record
                    ? std::string()
                    : "  through the line " + difference(raw_fields(family, again), raw_fields(family, empty)) + '\n');
    }

    static std::string forms_of_line(uint32_t family, const std::string& line) {
        acl_rule rule;
        std::string error;
        if (!acl_parse_line(family, line, rule, error)) {
            return line + "\n  error  " + error + '\n';
        }
        acl_stored_entry entry = {};
        EXPECT_EQ(acl_encode_rule(family, rule, entry), PLATFORM_OK);
        return line + '\n' + forms_of(family, entry);
    }

    static std::string forms_of_json(uint32_t family, const control_json& object) {
        acl_stored_entry entry = {};
        std::string error;
        const control_json json = control_json_parse(object.dump(), error).value();
        if (!acl_entry_from_json(family, json, entry, error)) {
            return json.dump() + "\n  error  " + error + '\n';
        }
        acl_stored_entry again = {};
        const bool is_taken = acl_entry_from_json(family, named_fields(family, entry), again, error);
        EXPECT_EQ(again.record, entry.record) << json.dump() << (is_taken ? "" : error);
        return json.dump() + '\n' + forms_of(family, entry);
    }

    static const char* action_field(uint32_t family) {
        return family == ACL_FAMILY_IPV6 ? "IsPacketAllowOrDeny" : "Grant";
    }

    static const std::vector<record_field>& fields(uint32_t family) {
        return find_record_schema(acl_entry_descriptor(family))->record().fields;
    }
};

/// A condition with every operator: the highest number, the next one, a range, a reversed range, and an invalid
/// condition.
std::vector<std::string> condition_lines(const std::string& before, const std::string& keyword, uint32_t highest,
                                         const std::string& after) {
    const std::string most = std::to_string(highest);
    const std::string more = std::to_string(highest + 1);
    std::vector<std::string> lines;
    for (const std::string condition : {"0", "7", "eq 7", "gt 7", "lt 7", "neq 7", "ne 7", "none", "eq", "eq x",
                                        "eq -1", "range 5 9", "range 9 9", "range 9 5", "range 9"}) {
        lines.push_back(before + keyword + condition + after);
    }
    for (const char* operation : {"", "eq ", "gt ", "lt ", "neq "}) {
        lines.push_back(before + keyword + operation + most + after);
        lines.push_back(before + keyword + operation + more + after);
    }
    lines.push_back(before + keyword + "range 0 " + most + after);
    lines.push_back(before + keyword + "range 0 " + more + after);
    lines.push_back(before + keyword + "range " + more + ' ' + more + after);
    return lines;
}

void append(std::vector<std::string>& lines, const std::vector<std::string>& more) {
    lines.insert(lines.end(), more.begin(), more.end());
}

std::vector<std::string> lines_of(uint32_t family) {
    std::vector<std::string> lines = {"permit tcp any any",
                                      "7 deny ip any any log",
                                      "permit ipv4 any any",
                                      "permit ipv6 any any",
                                      "permit 89 any any",
                                      "permit tcp any any counter c1 log",
                                      "permit tcp any any log counter c1",
                                      "permit tcp any any log log",
                                      "permit tcp any any nonsense"};
    for (const char* protocol : {"tcp", "udp", "icmp", "icmpv6", "gre", "esp", "0", "255", "256"}) {
        lines.push_back(std::string("permit ") + protocol + " any any");
        lines.push_back(std::string("permit ") + protocol + " any eq 22 any");
    }
    for (const char* address :
         {"host 10.1.2.3", "10.1.2.3", "10.1.2.3/0", "10.1.2.3/8", "10.1.2.3/32", "10.1.2.3 0.0.0.255",
          "10.1.2.3 0.255.0.255", "host 2001:db8::1", "2001:db8::1/0", "2001:db8::1/32", "2001:db8::1/128"}) {
        lines.push_back(std::string("permit tcp ") + address + " any");
        lines.push_back(std::string("permit tcp any ") + address);
    }
    append(lines, condition_lines("permit tcp any ", "", 65535, " any"));
    append(lines, condition_lines("permit tcp any any ", "", 65535, ""));
    for (const char* port : {"ssh", "telnet", "domain", "www", "https", "netconf"}) {
        lines.push_back(std::string("permit tcp any eq ") + port + " any range 1 " + port);
    }
    append(lines, condition_lines("permit tcp any any ", "dscp ", 63, ""));
    append(lines, condition_lines("permit tcp any any ", "ttl ", 255, ""));
    append(lines, condition_lines("permit tcp any any ", "packet-length ", 65535, ""));
    append(lines, condition_lines("permit tcp any any ", "fragment-offset ", 8191, ""));
    for (const char* keyword : {"dscp", "ttl", "packet-length", "fragment-offset"}) {
        lines.push_back(std::string("permit tcp any any ") + keyword + " 1 " + keyword + " 2");
    }
    for (const char* flags : {"established", "tcp-flags +fin -syn +rst -psh +ack -urg", "tcp-flags +syn",
                              "tcp-flags -syn", "tcp-flags", "tcp-flags +syn -syn", "tcp-flags +no"}) {
        lines.push_back(std::string("permit tcp any any ") + flags);
        lines.push_back(std::string("permit udp any any ") + flags);
    }
    const std::string common =
        "permit tcp any range 1 2 any neq 3 log counter c packet-length range 8 9 ttl gt 10 tcp-flags +ack dscp lt 4";
    lines.push_back(common);
    if (family == ACL_FAMILY_IPV4) {
        lines.push_back(common + " fragment-offset range 12 13");
    }
    return lines;
}

std::vector<control_json> values_of(const record_field& field) {
    switch (field.kind) {
        case record_field_kind::number32:
        case record_field_kind::number16:
        case record_field_kind::number8:
            return {1, 63, 64, 255, 256, 512, 8192, 65535, 65536, 4294967295, 4294967296, -1, "1", true};
        case record_field_kind::enumeration:
            return {0,    1,    2,    3,    4,     5,       6,     -1,          "none",      "permit", "deny",
                    "eq", "gt", "lt", "ne", "neq", "range", "log", "match_all", "match_any", true};
        case record_field_kind::boolean:
            return {true, false, 0, 1, 2, "true"};
        case record_field_kind::text:
            return {"c1", "", "a b", 1};
        default:
            return {"10.1.2.3", "2001:db8::1", "nonsense", 1};
    }
}

constexpr uint32_t both_families[] = {ACL_FAMILY_IPV4, ACL_FAMILY_IPV6};

std::string golden_name(uint32_t family, const char* suffix) {
    return "linux/access_lists/golden/" + std::string(family == ACL_FAMILY_IPV6 ? "ipv6_" : "ipv4_") + suffix;
}

TEST_F(acl_forms_test, lines) {
    for (const uint32_t family : both_families) {
        std::string text;
        for (const std::string& line : lines_of(family)) {
            text += forms_of_line(family, line);
        }
        expect_golden(golden_name(family, "lines"), text);
    }
}

TEST_F(acl_forms_test, json_objects_with_each_field) {
    for (const uint32_t family : both_families) {
        std::string text;
        for (const record_field& field : fields(family)) {
            for (const control_json& value : values_of(field)) {
                control_json json = {{action_field(family), 1}};
                json[field.name] = value;
                text += forms_of_json(family, json);
            }
        }
        expect_golden(golden_name(family, "fields"), text);
    }
}

/// Where an operator has two numbers, ranges are checked.
TEST_F(acl_forms_test, json_objects_with_each_range) {
    const std::vector<std::vector<std::string>> conditions[] = {
        {{"SourceOperator", "SourcePort1", "SourcePort2"},
         {"DestinationOperator", "DestinationPort1", "DestinationPort2"},
         {"DSCPOperator", "DSCP", "DSCP2"},
         {"PacketLengthOperator", "PacketLength1", "PacketLength2"},
         {"TTLOperator", "TTL1", "TTL2"},
         {"FragmentOffsetOperator", "FragmentOffset1", "FragmentOffset2"}},
        {{"IsSourceOperator", "IsSourcePort1", "IsSourcePort2"},
         {"IsDestinationOperator", "IsDestinationPort1", "IsDestinationPort2"},
         {"DSCPOperator", "IsDSCPValu", "IsDSCPValu2"},
         {"IsPacketLengthOperator", "IsPacketLengthStart", "IsPacketLengthEnd"},
         {"IsTimeToLiveOperator", "IsTimeToLiveStart", "IsTimeToLiveEnd"}}};
    for (const uint32_t family : both_families) {
        std::string text;
        for (const std::vector<std::string>& names : conditions[family == ACL_FAMILY_IPV6 ? 1 : 0]) {
            for (int operation = 0; operation <= 5; operation++) {
                const control_json base = {{action_field(family), 1}, {names[0], operation}};
                for (const auto& [first, second] : {std::pair{5, 9}, {9, 9}, {9, 5}}) {
                    control_json json = base;
                    json[names[1]] = first;
                    json[names[2]] = second;
                    text += forms_of_json(family, json);
                }
                control_json lower_only = base;
                lower_only[names[1]] = 9;
                text += forms_of_json(family, lower_only);
                control_json upper_only = base;
                upper_only[names[2]] = 9;
                text += forms_of_json(family, upper_only);
            }
        }
        expect_golden(golden_name(family, "ranges"), text);
    }
}

/// A DSCP condition has two fields, the presence flag and the operator; a JSON object may contain only one of them.
TEST_F(acl_forms_test, json_objects_with_dscp) {
    for (const uint32_t family : both_families) {
        const bool ipv6 = family == ACL_FAMILY_IPV6;
        std::string text;
        for (const bool present : {false, true}) {
            for (const int operation : {0, 1, 2, 3, 4, 5, 6, 255}) {
                text += forms_of_json(family, {{action_field(family), 1},
                                               {ipv6 ? "IsDSCPPresent" : "DSCPPresent", present},
                                               {"DSCPOperator", operation},
                                               {ipv6 ? "IsDSCPValu" : "DSCP", 5},
                                               {ipv6 ? "IsDSCPValu2" : "DSCP2", 9}});
            }
        }
        expect_golden(golden_name(family, "dscp"), text);
    }
}

/// Every field of the JSON form in order, with its value in an empty entry and in one with all conditions.
TEST_F(acl_forms_test, complete_json_objects) {
    std::string text;
    for (const uint32_t family : both_families) {
        text += named_fields(family, empty_entry(family)).dump(1) + '\n';
        acl_rule rule;
        std::string error;
        ASSERT_TRUE(acl_parse_line(family, lines_of(family).back(), rule, error)) << error;
        acl_stored_entry entry = {};
        ASSERT_EQ(acl_encode_rule(family, rule, entry), PLATFORM_OK);
        text += named_fields(family, entry).dump(1) + '\n';
        text += std::to_string(entry.record.size()) + " bytes:";
        for (const char octet : entry.record) {
            text += ' ' + std::to_string(static_cast<unsigned char>(octet));
        }
        text += '\n';
    }
    expect_golden("linux/access_lists/golden/whole_entries", text);
}

}  // namespace
