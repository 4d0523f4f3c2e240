#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "golden.h"
#include "linux/datastore/schema.h"
#include "platform/value_tuple.h"

namespace {

TEST(schema_table, is_in_byte_order_without_duplicates) {
    const auto rows = schema_rows();
    ASSERT_FALSE(rows.empty());
    for (size_t i = 1; i < rows.size(); i++) {
        EXPECT_LT(std::string(rows[i - 1].pattern), rows[i].pattern);
    }
}

void expect_meaning(const schema_row& row) {
    EXPECT_NE(row.form.help, nullptr) << row.pattern;
    EXPECT_EQ(strchr(row.pattern, '*') != nullptr, row.wildcard.help != nullptr) << row.pattern;
    EXPECT_EQ(row.form.kind == schema_kind::tuple, !row.fields.empty()) << row.pattern;
    for (const schema_field& field : row.fields) {
        EXPECT_TRUE(field.name != nullptr && field.form.help != nullptr) << row.pattern;
    }
}

TEST(schema_table, has_a_help_text_for_every_item_and_field) {
    for (const schema_row& row : schema_rows()) {
        expect_meaning(row);
    }
}

void expect_storable(const schema_row& row) {
    EXPECT_LE(row.fields.size(), size_t{TUPLE_FIELDS_MAX}) << row.pattern;
    EXPECT_GE(row.form.lowest, 0) << row.pattern;
    EXPECT_LE(row.form.highest, INT64_C(0xffffffff)) << row.pattern;
    for (const schema_field& field : row.fields) {
        const bool is_name = field.form.charset == schema_charset::algorithm_name;
        const int64_t longest = is_name ? TUPLE_NAME_MAX : TUPLE_TEXT_MAX;
        EXPECT_LE(field.form.highest, field.form.kind == schema_kind::text ? longest : INT_MAX) << row.pattern;
    }
}

// What a form allows must fit the packed format in which it is stored.
TEST(schema_table, requires_nothing_that_cannot_be_stored) {
    for (const schema_row& row : schema_rows()) {
        expect_storable(row);
    }
}

constexpr const char* kinds[] = {"number", "flag", "presence", "text", "tuple"};
constexpr const char* charsets[] = {"printable", "path", "word", "algorithm_name", "name", "delimited"};
constexpr const char* rules[] = {"", ", list", ", one selected"};

std::string form_text(const schema_form& form) {
    return std::string(kinds[static_cast<size_t>(form.kind)]) + ' ' + std::to_string(form.lowest) + " to " +
           std::to_string(form.highest) + ", " + charsets[static_cast<size_t>(form.charset)] + ": " + form.help + '\n';
}

std::string effect_text(const char* not_carried_out) {
    return not_carried_out == nullptr ? "" : std::string("        not carried out: ") + not_carried_out + '\n';
}

// Stored tuples depend on the order of their fields.
TEST(schema_table, has_these_items) {
    std::string text;
    for (const schema_row& row : schema_rows()) {
        text += std::string(row.pattern) + rules[static_cast<size_t>(row.rule)] + "\n    " + form_text(row.form) +
                effect_text(row.not_carried_out);
        if (row.wildcard.help != nullptr) {
            text += "    * " + form_text(row.wildcard);
        }
        for (const schema_field& field : row.fields) {
            text +=
                std::string("    [") + field.name + "] " + form_text(field.form) + effect_text(field.not_carried_out);
        }
    }
    expect_golden("linux/datastore/golden/schema_table", text);
}

}  // namespace
