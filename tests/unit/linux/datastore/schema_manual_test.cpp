// The manual page of the paths is generated from the schema.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "golden.h"
#include "linux/control/value.h"
#include "linux/datastore/schema.h"
#include "linux/datastore/schema_description.h"
#include "platform/algorithms.h"

namespace {

/// Text for a line of a manual page.
std::string roff(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        escaped += c == '\\' ? "\\e" : c == '-' ? "\\-" : c == '\'' ? "\\(aq" : c == '"' ? "\\(dq" : std::string(1, c);
    }
    return escaped;
}

std::string labelled(const char* label, const std::string& text) {
    return text.empty() ? "" : std::string(".br\n.I ") + label + ":\n" + roff(text) + '\n';
}

std::string manual_entry(const schema_row& row) {
    const schema_description item = schema_describe(row);
    std::string text = ".TP\n.B \"" + roff(schema_path_with_name(row, "NAME")) + "\"\n" + roff(item.meaning) + ".\n" +
                       labelled("NAME", item.name) + labelled("Value", item.value);
    for (const schema_field_description& field : item.fields) {
        text += ".br\n.B " + roff(field.name) + ":\n" + roff(field.form) + '\n';
    }
    return text + labelled("Unit", item.unit) + labelled("Default", item.default_value) +
           labelled("Example", "ssh_cfg_ctl set " + schema_path_with_name(row, "mgmt") + " '" + item.example + '\'') +
           labelled("Stored, not carried out on this machine", item.not_carried_out);
}

std::string manual_page() {
    std::string text = R"(.\" Written by the tests from the schema; see tests/README.md.
.TH SSH_CFG_PATHS 5 "" "ssh_cfg_agent" "File formats"
.SH NAME
ssh_cfg_paths \- paths and values of the SSH configuration
.SH DESCRIPTION
The configuration of
.BR ssh_cfg_agent (8)
consists of items, each with a path and a value. These are all paths that can be configured with
.BR ssh_cfg_ctl (1),
where
.B help
prints what is said here about one of them.
.PP
Values are JSON: a number, true or false, a string, or an array with
.B null
for an absent field. An object of field names may take the place of an array. Where a string is expected, a bare word will do.
.PP
Deleting an item restores its default.
.SH PATHS
.nh
.ad l
)";
    for (const schema_row& row : schema_rows()) {
        text += manual_entry(row);
    }
    return text + ".ad\n.hy\n.SH SEE ALSO\n.BR ssh_cfg_ctl (1),\n.BR ssh_cfg_agent (8)\n";
}

TEST(schema_manual, manual_page_lists_every_path) {
    expect_golden("../../packaging/ssh_cfg_paths.5", manual_page());
}

/// Whether `set` would take this JSON text; otherwise the refusal.
std::string refusal_of(const schema_row& row, const char* text) {
    const std::string path = schema_path_with_name(row, "mgmt");
    std::string refusal;
    const std::optional<datastore_value> value = control_value_from_word(row, path, text, refusal);
    datastore_stored stored;
    if (value) {
        schema_store(row, path, *value, stored, refusal);
    }
    return refusal;
}

TEST(schema_manual, examples_are_valid) {
    for (const schema_row& row : schema_rows()) {
        EXPECT_EQ(refusal_of(row, row.guide.example), "");
    }
}

bool is_a_value(const schema_row& row) {
    return row.form.kind == schema_kind::number ? isdigit(static_cast<unsigned char>(row.guide.default_value[0])) != 0
                                                : row.guide.default_value[0] == '[';
}

TEST(schema_manual, defaults_that_are_values_are_valid) {
    size_t values = 0;
    for (const schema_row& row : schema_rows()) {
        if (is_a_value(row)) {
            values++;
            EXPECT_EQ(refusal_of(row, row.guide.default_value), "");
        }
    }
    EXPECT_GT(values, 15U);
}

/// The names of a kind that servers offer without configuration, in order of preference, as JSON.
std::string offered_names(algorithm_kind kind) {
    std::map<int, std::string_view> names;
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind == kind && row.server_rank > 0) {
            names.emplace(row.server_rank, row.name);
        }
    }
    std::string text;
    for (const auto& [rank, name] : names) {
        text += (text.empty() ? "[\"" : ", \"") + std::string(name) + '"';
    }
    return text + ']';
}

TEST(schema_manual, default_lists_are_those_of_the_servers) {
    const std::map<std::string_view, algorithm_kind> lists = {{"algorithms/cipher", algorithm_kind::cipher},
                                                              {"algorithms/key-exchange", algorithm_kind::kex}};
    size_t found = 0;
    for (const schema_row& row : schema_rows()) {
        for (const auto& [end, kind] : lists) {
            if (std::string_view(row.pattern).ends_with(end)) {
                found++;
                EXPECT_EQ(row.guide.default_value, offered_names(kind)) << row.pattern;
            }
        }
    }
    EXPECT_EQ(found, 4U);
}

}  // namespace
