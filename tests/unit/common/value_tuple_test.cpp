#include "platform/value_tuple.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

namespace {

std::string bytes(std::initializer_list<int> values) {
    std::string result;
    for (const int value : values) {
        result.push_back(static_cast<char>(value));
    }
    return result;
}

platform_status decode(const std::string& packed, const char* format, tuple_field* fields, uint32_t count,
                       uint32_t* mask = nullptr) {
    return tuple_decode_mask(packed.data(), packed.size(), format, fields, count, mask);
}

TEST(tuple_decode, unpacks_numbers_and_texts) {
    const std::string packed = bytes({7, 0, 0, 0, 0xfe, 0xff, 0xff, 0xff, 2, 0, 'v', '4', 0, 1, 0, 'x', 0});
    tuple_field fields[3];
    uint32_t mask = 0;
    ASSERT_EQ(decode(packed, "%d%S%s", fields, 3, &mask), PLATFORM_OK);
    EXPECT_EQ(mask, 7u);
    EXPECT_EQ(fields[0].number, -2);
    EXPECT_EQ(fields[0].text, nullptr);
    EXPECT_STREQ(fields[1].text, "v4");
    EXPECT_EQ(fields[1].number, 0);
    EXPECT_STREQ(fields[2].text, "x");
}

TEST(tuple_decode, returns_zero_and_null_for_absent_fields) {
    const std::string packed = bytes({4, 0, 0, 0, 2, 0, 'v', '6', 0});
    tuple_field fields[3] = {{9, "old"}, {9, "old"}, {9, "old"}};
    ASSERT_EQ(decode(packed, "%d%S%S", fields, 3), PLATFORM_OK);
    EXPECT_EQ(fields[0].number, 0);
    EXPECT_EQ(fields[0].text, nullptr);
    EXPECT_EQ(fields[1].text, nullptr);
    EXPECT_STREQ(fields[2].text, "v6");
}

TEST(tuple_decode, accepts_unaligned_values) {
    const std::string packed = bytes({'?', 1, 0, 0, 0, 0x78, 0x56, 0x34, 0x12});
    tuple_field field = {};
    ASSERT_EQ(tuple_decode(packed.data() + 1, packed.size() - 1, "%d", &field, 1), PLATFORM_OK);
    EXPECT_EQ(field.number, 0x12345678);
}

TEST(tuple_decode, accepts_all_thirty_two_fields) {
    std::string format;
    std::string packed = bytes({0, 0, 0, 0x80, 5, 0, 0, 0});
    for (int i = 0; i < TUPLE_FIELDS_MAX; i++) {
        format += "%d";
    }
    tuple_field fields[TUPLE_FIELDS_MAX];
    ASSERT_EQ(decode(packed, format.c_str(), fields, TUPLE_FIELDS_MAX), PLATFORM_OK);
    EXPECT_EQ(fields[31].number, 5);
    EXPECT_EQ(fields[30].number, 0);
}

struct malformed_case {
    const char* name;
    std::string packed;
    const char* format;
    uint32_t count;
};

void PrintTo(const malformed_case& row, std::ostream* out) {
    *out << row.name;
}

class tuple_decode_malformed : public testing::TestWithParam<malformed_case> {};

TEST_P(tuple_decode_malformed, is_refused_with_the_fields_untouched) {
    const malformed_case& row = GetParam();
    tuple_field fields[TUPLE_FIELDS_MAX];
    for (tuple_field& field : fields) {
        field = {77, "untouched"};
    }
    uint32_t mask = 77;
    EXPECT_EQ(decode(row.packed, row.format, fields, row.count, &mask), platform_status{TUPLE_MALFORMED});
    EXPECT_EQ(mask, 77u);
    for (const tuple_field& field : fields) {
        EXPECT_EQ(field.number, 77);
        EXPECT_STREQ(field.text, "untouched");
    }
}

INSTANTIATE_TEST_SUITE_P(
    values, tuple_decode_malformed,
    testing::Values(malformed_case{"empty", "", "%d", 1}, malformed_case{"half_a_mask", bytes({1, 0, 0}), "%d", 1},
                    malformed_case{"half_a_number", bytes({1, 0, 0, 0, 1, 2, 3}), "%d", 1},
                    malformed_case{"left_over", bytes({1, 0, 0, 0, 1, 2, 3, 4, 5}), "%d", 1},
                    malformed_case{"left_over_behind_an_absent_field", bytes({0, 0, 0, 0, 0}), "%d", 1},
                    malformed_case{"mask_beyond_the_fields", bytes({2, 0, 0, 0, 1, 2, 3, 4}), "%d", 1},
                    malformed_case{"half_a_length", bytes({1, 0, 0, 0, 1}), "%s", 1},
                    malformed_case{"text_cut_off", bytes({1, 0, 0, 0, 3, 0, 'a', 'b'}), "%s", 1},
                    malformed_case{"text_without_its_nul", bytes({1, 0, 0, 0, 2, 0, 'a', 'b'}), "%s", 1},
                    malformed_case{"another_byte_for_the_nul", bytes({1, 0, 0, 0, 2, 0, 'a', 'b', 'c'}), "%s", 1},
                    malformed_case{"nul_within_the_text", bytes({1, 0, 0, 0, 2, 0, 'a', 0, 0}), "%s", 1},
                    malformed_case{"length_of_65535", bytes({1, 0, 0, 0, 0xff, 0xff, 'a', 0}), "%S", 1},
                    malformed_case{"good_field_then_half_a_field", bytes({3, 0, 0, 0, 1, 0, 0, 0, 9}), "%d%d", 2},
                    malformed_case{"unknown_conversion", bytes({1, 0, 0, 0, 1, 2, 3, 4}), "%u", 1},
                    malformed_case{"no_percent_sign", bytes({1, 0, 0, 0, 1, 2, 3, 4}), "dd", 1},
                    malformed_case{"format_too_short", bytes({0, 0, 0, 0}), "%d", 2},
                    malformed_case{"format_too_long", bytes({0, 0, 0, 0}), "%d%d", 1},
                    malformed_case{"format_ends_in_a_percent_sign", bytes({0, 0, 0, 0}), "%d%", 2},
                    malformed_case{"thirty_three_fields", bytes({0, 0, 0, 0}), "%d", 33}),
    [](const testing::TestParamInfo<malformed_case>& info) { return std::string(info.param.name); });

TEST(tuple_decode, limits_the_length_of_names_and_texts) {
    const auto packed = [](size_t length) {
        return bytes({1, 0, 0, 0, static_cast<int>(length & 0xff), static_cast<int>(length >> 8)}) +
               std::string(length, 'n') + '\0';
    };
    tuple_field field;
    EXPECT_EQ(decode(packed(TUPLE_NAME_MAX), "%s", &field, 1), PLATFORM_OK);
    EXPECT_EQ(decode(packed(TUPLE_NAME_MAX + 1), "%s", &field, 1), platform_status{TUPLE_MALFORMED});
    EXPECT_EQ(decode(packed(TUPLE_TEXT_MAX), "%S", &field, 1), PLATFORM_OK);
    EXPECT_EQ(decode(packed(TUPLE_TEXT_MAX + 1), "%S", &field, 1), platform_status{TUPLE_MALFORMED});
}

TEST(tuple_decode, refuses_null) {
    tuple_field field = {77, nullptr};
    EXPECT_EQ(tuple_decode(nullptr, 0, "%d", &field, 1), platform_status{TUPLE_MALFORMED});
    EXPECT_EQ(field.number, 77);
}

TEST(tuple_encode, writes_exactly_these_bytes) {
    const tuple_field fields[3] = {{-2, nullptr}, {0, "not packed"}, {0, "v6"}};
    char packed[64];
    size_t size = 0;
    ASSERT_EQ(tuple_encode(packed, sizeof packed, "%d%S%s", fields, 3, 5, &size), PLATFORM_OK);
    EXPECT_EQ(std::string(packed, size), bytes({5, 0, 0, 0, 0xfe, 0xff, 0xff, 0xff, 2, 0, 'v', '6', 0}));
}

TEST(tuple_encode, round_trips) {
    const std::string name(TUPLE_NAME_MAX, 'n');
    const std::string text(TUPLE_TEXT_MAX, 't');
    const tuple_field fields[5] = {
        {INT_MIN, nullptr}, {0, name.c_str()}, {0, text.c_str()}, {0, ""}, {INT_MAX, nullptr}};
    char packed[2048];
    size_t size = 0;
    ASSERT_EQ(tuple_encode(packed, sizeof packed, "%d%s%S%S%d", fields, 5, 31, &size), PLATFORM_OK);
    tuple_field decoded[5];
    ASSERT_EQ(tuple_decode(packed, size, "%d%s%S%S%d", decoded, 5), PLATFORM_OK);
    EXPECT_EQ(decoded[0].number, INT_MIN);
    EXPECT_EQ(decoded[1].text, name);
    EXPECT_EQ(decoded[2].text, text);
    EXPECT_STREQ(decoded[3].text, "");
    EXPECT_EQ(decoded[4].number, INT_MAX);
}

TEST(tuple_encode, returns_the_size_needed_and_writes_nothing_into_a_smaller_buffer) {
    const tuple_field field = {0, "abc"};
    char packed[] = "untouched";
    size_t size = 0;
    EXPECT_EQ(tuple_encode(packed, 9, "%s", &field, 1, 1, &size), platform_status{ENOSPC});
    EXPECT_EQ(size, 10u);
    EXPECT_STREQ(packed, "untouched");
    EXPECT_EQ(tuple_encode(packed, 10, "%s", &field, 1, 1, &size), PLATFORM_OK);
}

TEST(tuple_encode, refuses_values_that_do_not_fit_the_format) {
    const std::string long_name(TUPLE_NAME_MAX + 1, 'n');
    const std::string long_text(TUPLE_TEXT_MAX + 1, 't');
    const tuple_field no_text = {0, nullptr};
    const tuple_field name = {0, long_name.c_str()};
    const tuple_field text = {0, long_text.c_str()};
    char packed[4096];
    size_t size = 0;
    EXPECT_EQ(tuple_encode(packed, sizeof packed, "%s", &no_text, 1, 1, &size), platform_status{TUPLE_MALFORMED});
    EXPECT_EQ(tuple_encode(packed, sizeof packed, "%s", &name, 1, 1, &size), platform_status{TUPLE_MALFORMED});
    EXPECT_EQ(tuple_encode(packed, sizeof packed, "%S", &text, 1, 1, &size), platform_status{TUPLE_MALFORMED});
    EXPECT_EQ(tuple_encode(packed, sizeof packed, "%S", &name, 1, 1, &size), PLATFORM_OK);
    EXPECT_EQ(tuple_encode(packed, sizeof packed, "%d", &name, 1, 2, &size), platform_status{TUPLE_MALFORMED});
    EXPECT_EQ(tuple_encode(packed, sizeof packed, "%x", &name, 1, 1, &size), platform_status{TUPLE_MALFORMED});
}

}  // namespace
