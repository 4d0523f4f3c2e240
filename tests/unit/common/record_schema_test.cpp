#include "common/record_schema.h"

#include <gtest/gtest.h>

#include <cstddef>

#include "record_schemas.h"

TEST(record_schema, derives_the_compact_form) {
    for (const schema_sample& sample : schema_samples) {
        const auto schema = parse_record_schema(sample.full);
        ASSERT_TRUE(schema.has_value()) << sample.full;
        EXPECT_EQ(compact_record_schema(*schema), sample.compact);
    }
}

TEST(record_schema, lays_structures_out_as_the_compiler_does) {
    for (const schema_sample& sample : schema_samples) {
        const auto schema = parse_record_schema(sample.full);
        ASSERT_TRUE(schema.has_value()) << sample.full;
        EXPECT_EQ(schema->record().size, sample.size) << sample.full;
    }
}

TEST(record_schema, gives_access_list_fields_their_offsets) {
    const auto ipv4 = parse_record_schema(ACL_IPV4_ENTRY_SCHEMA);
    const auto ipv6 = parse_record_schema(ACL_IPV6_ENTRY_SCHEMA);
    ASSERT_TRUE(ipv4 && ipv6);
    const auto offset = [](const record_schema& schema, std::string_view name) {
        for (const record_field& field : schema.record().fields) {
            if (field.name == name) {
                return field.offset;
            }
        }
        return size_t{0};
    };
    EXPECT_EQ(offset(*ipv4, "SourceAddressMask"), offsetof(acl_ipv4_entry, SourceAddressMask));
    EXPECT_EQ(offset(*ipv4, "CounterName"), offsetof(acl_ipv4_entry, CounterName));
    EXPECT_EQ(offset(*ipv4, "TCPFlagsOperator"), offsetof(acl_ipv4_entry, TCPFlagsOperator));
    EXPECT_EQ(offset(*ipv4, "FragmentOffset2"), offsetof(acl_ipv4_entry, FragmentOffset2));
    EXPECT_EQ(offset(*ipv6, "SourceMask"), offsetof(acl_ipv6_entry, SourceMask));
    EXPECT_EQ(offset(*ipv6, "DestinationMask"), offsetof(acl_ipv6_entry, DestinationMask));
    EXPECT_EQ(offset(*ipv6, "CounterName"), offsetof(acl_ipv6_entry, CounterName));
    EXPECT_EQ(offset(*ipv6, "IsTimeToLiveEnd"), offsetof(acl_ipv6_entry, IsTimeToLiveEnd));
}

TEST(record_schema, keeps_names_and_enumerations) {
    const auto schema = parse_record_schema(BRIEF_INFO_SCHEMA MCINFO_SCHEMA);
    ASSERT_TRUE(schema.has_value());
    const record_definition& record = schema->record();
    EXPECT_TRUE(record.linked);
    EXPECT_EQ(record.fields[1].name, "NodeName");
    EXPECT_TRUE(record.fields[1].node_id);
    EXPECT_EQ(record.fields[2].enumeration, "states_en");
    EXPECT_EQ(record.link_offset(), 56U);
}

TEST(record_schema, refuses_invalid_schemas) {
    const char* refused[] = {
        "",
        "$1=",
        "$1={A}D",
        "$1={A}D;x",
        "$1={}D;",
        "$1={A};",
        "$1=;",
        "$1={A}Q;",
        "$1={A}0x%S;",
        "$1={A}99999x%S;",
        "$1={A}64x%T;",
        "$1={A}[]e;",
        "$1={A}[x]D;",
        "$1={A}$2;",
        "$1={A}a($2);",
        "$1={A}p(D);",
        "$1={A}p([x]I);",
        "$1={A}D;$1={B}D;",
        "$1={A}$1;",
        "$1={A}$2;$2={B}$1;",
        "$1=L{A}D;",
        "$1=L{Next}Pp($1);",
        "$1={A}D{Next}Pp($1);",
        "$1=L{Next}Pp($1){A}D;",
        "$1=L{A}D{Next}Pp($2);$2={B}D;",
        "$1={A}$2;$2=L{B}D{Next}Pp($2);",
        "$99999999999={A}D;",
    };
    for (const char* text : refused) {
        EXPECT_FALSE(parse_record_schema(text).has_value()) << text;
    }
}

TEST(record_schema, limits_nested_structures) {
    // Each is twice as large as the next, so with 64 of them sizes would exceed the largest number.
    std::string text;
    for (int number = 1; number <= 64; ++number) {
        const std::string next = "$" + std::to_string(number + 1);
        text += "$" + std::to_string(number) + "={A}" + next + "{B}" + next + ";";
    }
    EXPECT_FALSE(parse_record_schema(text + "$65={A}D;").has_value());
    EXPECT_FALSE(
        parse_record_schema("$1={A}$2{B}$2;$2={A}65535x%S{B}$3{C}$3{D}$3{E}$3{F}$3{G}$3{H}$3{I}$3;$3={A}65535x%S;")
            .has_value());
    EXPECT_TRUE(parse_record_schema("$1={A}$2{B}$2;$2={A}65535x%S{B}65535x%S;").has_value());
}
