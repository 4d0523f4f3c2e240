#include "linux/datastore/schema_description.h"

#include <cctype>

#include "linux/datastore/schema_form.h"

namespace {

std::string text_or_empty(const char* text) {
    return text == nullptr ? std::string() : text;
}

/// Returns the help text without the unit at its beginning, and with a capital letter.
std::string meaning_of(const schema_row& row) {
    std::string text = row.form.help;
    const std::string unit = text_or_empty(row.guide.unit) + ", ";
    text.erase(0, text.starts_with(unit) ? unit.size() : 0);
    text[0] = static_cast<char>(toupper(static_cast<unsigned char>(text[0])));
    return text;
}

/// Describes the form of the value without its meaning.
std::string form_of(const schema_row& row) {
    std::string words = schema_expected(row);
    const std::string in_brackets = std::string(" (") + row.form.help + ')';
    const size_t position = words.find(in_brackets);
    return position == std::string::npos ? words : words.erase(position, in_brackets.size());
}

/// Describes the fields of a tuple. Flags and the fields of lists are omitted, because their names say enough.
std::vector<schema_field_description> fields_of(const schema_row& row) {
    std::vector<schema_field_description> fields;
    for (const schema_field& field : row.fields) {
        if (field.form.kind != schema_kind::flag && row.rule != schema_tuple_rule::list) {
            fields.push_back({field.name, schema_form_in_words(field.form)});
        }
    }
    return fields;
}

}  // namespace

schema_description schema_describe(const schema_row& row) {
    return {.meaning = meaning_of(row),
            .name = row.wildcard.help == nullptr ? std::string() : schema_form_in_words(row.wildcard),
            .value = form_of(row),
            .fields = fields_of(row),
            .unit = text_or_empty(row.guide.unit),
            .default_value = row.guide.default_value,
            .example = row.guide.example,
            .not_carried_out = text_or_empty(row.not_carried_out)};
}

std::string schema_path_with_name(const schema_row& row, std::string_view name) {
    std::string path = row.pattern;
    const size_t position = path.find('*');
    return position == std::string::npos ? path : path.replace(position, 1, name);
}
