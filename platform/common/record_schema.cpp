#include "common/record_schema.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr uint32_t width_max = 65535;
constexpr size_t structure_max = 1U << 20;  // bytes; nested structures can grow very fast

/// Size and alignment of a kind of field in memory.
struct field_shape {
    size_t size;
    size_t alignment;
};

class schema_parser {
  public:
    explicit schema_parser(std::string_view text) : rest_(text) {}

    bool parse(record_schema& schema) {
        while (!rest_.empty()) {
            record_definition definition;
            if (!parse_definition(definition)) {
                return false;
            }
            schema.definitions.push_back(std::move(definition));
        }
        return !schema.definitions.empty();
    }

  private:
    bool take(std::string_view expected) {
        if (!rest_.starts_with(expected)) {
            return false;
        }
        rest_.remove_prefix(expected.size());
        return true;
    }

    bool take_number(uint32_t& number) {
        const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), number);
        if (error != std::errc{}) {
            return false;
        }
        rest_.remove_prefix(static_cast<size_t>(end - rest_.data()));
        return true;
    }

    bool take_name(char opening, char closing, std::string& name) {
        if (rest_.empty() || rest_.front() != opening) {
            return false;
        }
        const size_t end = rest_.find(closing);
        if (end == std::string_view::npos || end == 1) {
            return false;
        }
        name = rest_.substr(1, end - 1);
        rest_.remove_prefix(end + 1);
        return true;
    }

    bool take_type(uint32_t& number) { return take("$") && take_number(number); }

    bool parse_definition(record_definition& definition) {
        if (!take_type(definition.number) || !take("=")) {
            return false;
        }
        definition.linked = take("L");
        while (!take(";")) {
            record_field field;
            if (!take_name('{', '}', field.name) || !parse_type(field)) {
                return false;
            }
            definition.fields.push_back(std::move(field));
        }
        return has_good_links(definition);
    }

    /// A linked definition ends in its link and has other fields, too; any other definition has no link.
    static bool has_good_links(const record_definition& definition) {
        const auto links =
            std::count_if(definition.fields.begin(), definition.fields.end(),
                          [](const record_field& field) { return field.kind == record_field_kind::link; });
        if (definition.fields.empty() || links != (definition.linked ? 1 : 0)) {
            return false;
        }
        const record_field& last = definition.fields.back();
        return !definition.linked || (definition.fields.size() > 1 && last.kind == record_field_kind::link &&
                                      last.type_number == definition.number);
    }

    bool parse_type(record_field& field) {
        if (take_name('[', ']', field.enumeration)) {
            field.kind = record_field_kind::enumeration;
            return take("e");
        }
        if (!rest_.empty() && rest_.front() >= '0' && rest_.front() <= '9') {
            return parse_fixed(field);
        }
        if (take("a(")) {
            field.kind = record_field_kind::array;
            return take_type(field.type_number) && take(")");
        }
        if (take("Pp(")) {
            field.kind = record_field_kind::link;
            return take_type(field.type_number) && take(")");
        }
        if (take("p(")) {
            return parse_pointer(field);
        }
        if (take_type(field.type_number)) {
            field.kind = record_field_kind::embedded;
            return true;
        }
        return parse_letter(field);
    }

    bool parse_fixed(record_field& field) {
        if (!take_number(field.width) || field.width == 0 || field.width > width_max) {
            return false;
        }
        if (take("x%S")) {
            field.kind = record_field_kind::fixed_text;
            return true;
        }
        field.kind = record_field_kind::bytes;
        return take("xC");
    }

    bool parse_pointer(record_field& field) {
        if (take_type(field.type_number)) {
            field.kind = record_field_kind::pointer;
            return take(")");
        }
        field.kind = record_field_kind::optional_value;
        const bool named = take_name('[', ']', field.enumeration);
        for (const char letter : {'b', 'e', 'I'}) {
            if ((letter == 'e' || !named) && take(std::string_view(&letter, 1))) {
                field.optional_letter = letter;
                return take(")");
            }
        }
        return false;
    }

    bool parse_letter(record_field& field) {
        struct letter_row {
            char letter;
            record_field_kind kind;
        };
        constexpr letter_row letters[] = {
            {'D', record_field_kind::number32}, {'I', record_field_kind::number16},
            {'C', record_field_kind::number8},  {'A', record_field_kind::ipv4_address},
            {'s', record_field_kind::text},     {'e', record_field_kind::enumeration},
            {'b', record_field_kind::boolean},
        };
        for (const letter_row& row : letters) {
            if (take(std::string_view(&row.letter, 1))) {
                field.kind = row.kind;
                field.node_id = row.kind == record_field_kind::number32 && take("%n");
                return true;
            }
        }
        return false;
    }

    std::string_view rest_;
};

/// Resolves each field's definition. No number may be defined twice.
bool resolve_types(record_schema& schema) {
    const auto find = [&schema](uint32_t number) {
        return std::find_if(schema.definitions.begin(), schema.definitions.end(),
                            [number](const record_definition& definition) { return definition.number == number; });
    };
    for (record_definition& definition : schema.definitions) {
        if (&*find(definition.number) != &definition) {
            return false;
        }
        for (record_field& field : definition.fields) {
            const bool typed = field.kind == record_field_kind::array || field.kind == record_field_kind::pointer ||
                               field.kind == record_field_kind::link || field.kind == record_field_kind::embedded;
            if (!typed) {
                continue;
            }
            const auto type = find(field.type_number);
            if (type == schema.definitions.end() || (field.kind == record_field_kind::embedded && type->linked)) {
                return false;
            }
            field.type_index = static_cast<size_t>(type - schema.definitions.begin());
        }
    }
    return true;
}

size_t rounded_up(size_t size, size_t alignment) {
    return (size + alignment - 1) / alignment * alignment;
}

field_shape shape_of(const record_schema& schema, const record_field& field) {
    switch (field.kind) {
        case record_field_kind::number16:
            return {sizeof(uint16_t), alignof(uint16_t)};
        case record_field_kind::number8:
            return {1, 1};
        case record_field_kind::bytes:
        case record_field_kind::fixed_text:
            return {field.width, 1};
        case record_field_kind::text:
        case record_field_kind::pointer:
        case record_field_kind::link:
        case record_field_kind::optional_value:
            return {sizeof(void*), alignof(void*)};
        case record_field_kind::array:
            return {2 * sizeof(void*), alignof(void*)};
        case record_field_kind::embedded:
            return {schema.type_of(field).size, schema.type_of(field).alignment};
        default:
            return {sizeof(uint32_t), alignof(uint32_t)};
    }
}

/// Lays out one structure, after those that it embeds. `depth` stops a structure that embeds itself.
bool lay_out(record_schema& schema, size_t index, size_t depth) {
    if (depth > schema.definitions.size()) {
        return false;
    }
    record_definition& definition = schema.definitions[index];
    if (definition.size != 0) {
        return true;
    }
    size_t end = 0;
    for (record_field& field : definition.fields) {
        if (field.kind == record_field_kind::embedded && !lay_out(schema, field.type_index, depth + 1)) {
            return false;
        }
        const field_shape shape = shape_of(schema, field);
        field.offset = rounded_up(end, shape.alignment);
        end = field.offset + shape.size;
        if (end > structure_max) {
            return false;
        }
        definition.alignment = std::max(definition.alignment, shape.alignment);
    }
    definition.size = rounded_up(end, definition.alignment);
    return true;
}

std::string compact_field(const record_field& field) {
    const std::string type = "$" + std::to_string(field.type_number);
    switch (field.kind) {
        case record_field_kind::number32:
            return field.node_id ? "D%n" : "D";
        case record_field_kind::number16:
            return "I";
        case record_field_kind::number8:
            return "C";
        case record_field_kind::ipv4_address:
            return "A";
        case record_field_kind::bytes:
            return std::to_string(field.width) + "xC";
        case record_field_kind::text:
            return "s";
        case record_field_kind::enumeration:
            return "e";
        case record_field_kind::boolean:
            return "b";
        case record_field_kind::fixed_text:
            return std::to_string(field.width) + "x%S";
        case record_field_kind::array:
            return "a(" + type + ")";
        case record_field_kind::pointer:
            return "p(" + type + ")";
        case record_field_kind::link:
            return "Pp(" + type + ")";
        case record_field_kind::optional_value:
            return std::string("p(") + field.optional_letter + ")";
        case record_field_kind::embedded:
            return type + ".";
    }
    return {};
}

}  // namespace

std::optional<record_schema> parse_record_schema(std::string_view full_schema) {
    record_schema schema;
    if (!schema_parser(full_schema).parse(schema) || !resolve_types(schema)) {
        return std::nullopt;
    }
    for (size_t index = 0; index < schema.definitions.size(); ++index) {
        if (!lay_out(schema, index, 0)) {
            return std::nullopt;
        }
    }
    return schema;
}

std::string compact_record_schema(const record_schema& schema) {
    std::string compact;
    for (const record_definition& definition : schema.definitions) {
        compact += "$" + std::to_string(definition.number) + "=" + (definition.linked ? "L" : "");
        for (const record_field& field : definition.fields) {
            compact += compact_field(field);
        }
        compact += ";";
    }
    return compact;
}
