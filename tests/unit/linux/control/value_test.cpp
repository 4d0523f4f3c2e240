#include "linux/control/value.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

namespace {

using testing::AllOf;
using testing::HasSubstr;

constexpr char timeout_path[] = "/cfg/gl/crypto/ssh/server/cmn/timeout";
constexpr char logging_path[] = "/cfg/gl/crypto/ssh/server/cmn/logging";
constexpr char trustpoint_path[] = "/cfg/gl/crypto/ssh/server/cmn/trustpoint/host";
constexpr char vrf_path[] = "/cfg/gl/crypto/ssh/server/sshd/vrf/red";
constexpr char cipher_path[] = "/cfg/gl/crypto/ssh/server/cmn/algorithms/cipher";

const schema_row& row_of(const char* path) {
    const schema_row* row = schema_find(path, nullptr);
    EXPECT_NE(row, nullptr) << path;
    return *row;
}

control_json json(const char* text) {
    std::string error;
    const auto document = control_json_parse(text, error);
    EXPECT_TRUE(document.has_value()) << error;
    return document.value_or(control_json());
}

/// The value made from JSON, as messages show it; or the refusal.
std::string from_json(const char* path, const char* text) {
    std::string refusal;
    const auto value = control_value_from_json(row_of(path), path, json(text), refusal);
    return value.has_value() ? schema_display(*value) : "refused: " + refusal;
}

std::string from_word(const char* path, const char* word) {
    std::string refusal;
    const auto value = control_value_from_word(row_of(path), path, word, refusal);
    return value.has_value() ? schema_display(*value) : "refused: " + refusal;
}

TEST(control_value_from_json, accepts_plain_values) {
    EXPECT_EQ(from_json(timeout_path, "45"), "45");
    EXPECT_EQ(from_json(timeout_path, "-1"), "-1");
    EXPECT_EQ(from_json(logging_path, "true"), "true");
    EXPECT_EQ(from_json(trustpoint_path, "\"corp-ca\""), "\"corp-ca\"");
    // Whether it fits is decided by the schema.
    EXPECT_EQ(from_json(timeout_path, "\"x\""), "\"x\"");
}

TEST(control_value_from_json, accepts_whole_numbers_in_any_notation) {
    EXPECT_EQ(from_json(timeout_path, "45.0"), "45");
    EXPECT_EQ(from_json(timeout_path, "4.5e1"), "45");
    EXPECT_EQ(from_json(timeout_path, "9223372036854775807"), "9223372036854775807");
    EXPECT_EQ(from_json(timeout_path, "-9223372036854775808"), "-9223372036854775808");
}

TEST(control_value_from_json, passes_other_numbers_to_the_schema) {
    std::string refusal;
    const auto value = control_value_from_json(row_of(timeout_path), timeout_path, json("45.5"), refusal);
    ASSERT_TRUE(value.has_value());
    EXPECT_TRUE(std::holds_alternative<double>(*value));
}

TEST(control_value_from_json, refuses_numbers_beyond_any_range) {
    for (const char* number : {"9223372036854775808", "18446744073709551615", "1e+30", "-1e+30"}) {
        EXPECT_THAT(from_json(timeout_path, number), HasSubstr(std::string(number) + " is out of range; expected"));
        EXPECT_THAT(from_json(vrf_path, (std::string("[") + number + "]").c_str()), HasSubstr("is out of range"));
        EXPECT_THAT(from_json(vrf_path, (std::string("{\"index\":") + number + "}").c_str()),
                    HasSubstr("is out of range"));
    }
    EXPECT_THAT(from_word(timeout_path, "99999999999999999999"), HasSubstr(": 99999999999999999999 is out of range"));
}

TEST(control_value_from_json, accepts_tuples_as_arrays_and_objects) {
    EXPECT_EQ(from_json(vrf_path, "[null,\"v4\",null]"), "[null, \"v4\", null]");
    EXPECT_EQ(from_json(vrf_path, "[]"), "[]");
    EXPECT_EQ(from_json(vrf_path, R"({"ipv6_acl":"v6","ipv4_acl":"v4"})"), "[null, \"v4\", \"v6\"]");
    EXPECT_EQ(from_json(vrf_path, R"({"ipv6_acl":null})"), "[null, null, null]");
    EXPECT_EQ(from_json(cipher_path, R"({"algorithm_1":"a","algorithm_2":"b"})"), "[\"a\", \"b\"]");
}

TEST(control_value_from_json, refuses_types_that_no_item_has) {
    EXPECT_THAT(from_json(timeout_path, "null"),
                AllOf(HasSubstr("refused: /cfg/gl/crypto/ssh/server/cmn/timeout: null cannot be stored"),
                      HasSubstr("expected a number from 5 to 120")));
    EXPECT_THAT(from_json(timeout_path, "{\"a\":1}"), HasSubstr("{\"a\":1} cannot be stored"));
    EXPECT_THAT(from_json(vrf_path, "[[1]]"), HasSubstr("[1] cannot be a field of a value"));
    EXPECT_THAT(from_json(vrf_path, R"({"ipv4_acl":{}})"), HasSubstr("{} cannot be a field"));
    EXPECT_THAT(from_json(vrf_path, R"({"ipv4":"x"})"),
                AllOf(HasSubstr("unknown field \"ipv4\""), HasSubstr("index, ipv4_acl, ipv6_acl")));
}

TEST(control_value_from_word, a_word_is_parsed_as_json_first) {
    EXPECT_EQ(from_word(timeout_path, "45"), "45");
    EXPECT_EQ(from_word(logging_path, "true"), "true");
    EXPECT_EQ(from_word(vrf_path, "[null, \"v4\"]"), "[null, \"v4\"]");
    EXPECT_EQ(from_word(trustpoint_path, "\"corp-ca\""), "\"corp-ca\"");
}

TEST(control_value_from_word, a_bare_word_is_text_where_text_is_expected) {
    EXPECT_EQ(from_word(trustpoint_path, "corp-ca"), "\"corp-ca\"");
    EXPECT_EQ(from_word(trustpoint_path, "123"), "\"123\"");
    EXPECT_EQ(from_word(trustpoint_path, "true"), "\"true\"");
    EXPECT_EQ(from_word(trustpoint_path, "null"), "\"null\"");
    EXPECT_EQ(from_word(trustpoint_path, ""), "\"\"");
    EXPECT_EQ(from_word(trustpoint_path, "two words"), "\"two words\"");
}

TEST(control_value_from_word, elsewhere_a_bare_word_is_passed_to_the_schema) {
    EXPECT_EQ(from_word(timeout_path, "soon"), "\"soon\"");
    EXPECT_EQ(from_word(vrf_path, "v4"), "\"v4\"");
}

TEST(control_value_from_word, an_error_in_json_is_reported) {
    EXPECT_THAT(from_word(vrf_path, "[null, v4]"),
                AllOf(HasSubstr("[null, v4] is not valid: not JSON: parse error"), HasSubstr("expected an array")));
    EXPECT_THAT(from_word(trustpoint_path, "\"corp-ca"), HasSubstr("is not valid: not JSON"));
    EXPECT_THAT(from_word(vrf_path, R"({"ipv4_acl":"a","ipv4_acl":"b"})"), HasSubstr("duplicate name \"ipv4_acl\""));
}

TEST(control_value_to_json, round_trips) {
    EXPECT_EQ(control_json_text(control_value_to_json(int64_t{45})), "45");
    EXPECT_EQ(control_json_text(control_value_to_json(true)), "true");
    EXPECT_EQ(control_json_text(control_value_to_json(std::string("ü\n"))), "\"ü\\n\"");
    const datastore_fields fields = {std::nullopt, datastore_scalar(std::string("v4")), datastore_scalar(int64_t{-1}),
                                     datastore_scalar(false)};
    EXPECT_EQ(control_json_text(control_value_to_json(fields)), "[null,\"v4\",-1,false]");
    EXPECT_EQ(control_json_text(control_value_to_json(datastore_fields())), "[]");
}

}  // namespace
