#include <errno.h>

#include <cstring>

#include "common/text.h"
#include "linux/datastore/schema.h"
#include "linux/datastore/schema_form.h"
#include "platform/datastore_backend.h"
#include "platform/value_tuple.h"

namespace {

constexpr size_t shown_value = 80;

/// What is wrong with a value; the whole sentence, a format for the path (and field), the value and the expected form.
enum class complaint : uint8_t {
    none,
    not_a_number,
    not_whole,
    out_of_range,
    not_a_flag,
    not_true,
    not_a_text,
    too_short,
    too_long,
    wrong_characters,
    not_delimited,
    not_an_array,
    too_many_fields,
    empty_list,
    gap_in_list,
    none_selected
};

constexpr const char* complaint_formats[] = {
    "",
    "%s: %s is not a number; expected %s",
    "%s: %s is not a whole number; expected %s",
    "%s: %s is out of range; expected %s",
    "%s: %s is neither true nor false; expected %s",
    "%s: %s is not true; expected %s",
    "%s: %s is not a string; expected %s",
    "%s: %s is too short; expected %s",
    "%s: %s is too long; expected %s",
    "%s: %s contains a character that is not allowed; expected %s",
    "%s: %s is not enclosed in matching delimiters; expected %s",
    "%s: %s is not an array; expected %s",
    "%s: %s has too many fields; expected %s",
    "%s: %s is an empty list; expected %s",
    "%s: %s has a gap in the list; expected %s",
    "%s: %s selects nothing; expected %s",
};

std::string complain(complaint what, const std::string& place, const std::string& value, const std::string& expected) {
    const char* format = complaint_formats[static_cast<size_t>(what)];
    return text_format(format, place.c_str(), value.c_str(), expected.c_str());
}

complaint take_number(const schema_form& form, const datastore_scalar& value, uint32_t& number) {
    if (std::holds_alternative<double>(value)) {
        return complaint::not_whole;
    }
    const int64_t* given = std::get_if<int64_t>(&value);
    if (given == nullptr) {
        return complaint::not_a_number;
    }
    if (*given < form.lowest || *given > form.highest) {
        return complaint::out_of_range;
    }
    number = static_cast<uint32_t>(*given);
    return complaint::none;
}

complaint take_flag(const schema_form& form, const datastore_scalar& value, uint32_t& number) {
    const bool* flag = std::get_if<bool>(&value);
    const int64_t* given = std::get_if<int64_t>(&value);
    const bool is_flag = flag != nullptr || (given != nullptr && (*given == 0 || *given == 1));
    const bool is_set = flag != nullptr ? *flag : given != nullptr && *given == 1;
    if (form.kind == schema_kind::presence && !is_set) {
        return complaint::not_true;
    }
    if (!is_flag) {
        return complaint::not_a_flag;
    }
    number = is_set ? 1 : 0;
    return complaint::none;
}

complaint take_text(const schema_form& form, const datastore_scalar& value, std::string& text) {
    const std::string* given = std::get_if<std::string>(&value);
    if (given == nullptr) {
        return complaint::not_a_text;
    }
    if (static_cast<int64_t>(given->size()) < form.lowest) {
        return complaint::too_short;
    }
    if (static_cast<int64_t>(given->size()) > form.highest) {
        return complaint::too_long;
    }
    if (!schema_has_charset(*given, form.charset)) {
        return complaint::wrong_characters;
    }
    if (form.charset == schema_charset::delimited && !schema_is_delimited(*given)) {
        return complaint::not_delimited;
    }
    text = *given;
    return complaint::none;
}

/// The stored form of a plain value: a number or a text.
struct taken_scalar {
    uint32_t number = 0;
    std::string text;
};

complaint take_scalar(const schema_form& form, const datastore_scalar& value, taken_scalar& taken) {
    switch (form.kind) {
        case schema_kind::number:
            return take_number(form, value, taken.number);
        case schema_kind::text:
            return take_text(form, value, taken.text);
        default:
            return take_flag(form, value, taken.number);
    }
}

char conversion_of(const schema_form& form) {
    if (form.kind != schema_kind::text) {
        return 'd';
    }
    return form.charset == schema_charset::algorithm_name ? 's' : 'S';
}

/// The packed form of a row's tuple, see platform/value_tuple.h.
std::string tuple_format(const schema_row& row) {
    std::string format;
    for (const schema_field& field : row.fields) {
        format += '%';
        format += conversion_of(field.form);
    }
    return format;
}

complaint check_tuple_rule(const schema_row& row, const datastore_fields& fields,
                           const std::vector<taken_scalar>& taken) {
    if (row.rule == schema_tuple_rule::list) {
        if (fields.empty()) {
            return complaint::empty_list;
        }
        for (const std::optional<datastore_scalar>& field : fields) {
            if (!field) {
                return complaint::gap_in_list;
            }
        }
    }
    if (row.rule == schema_tuple_rule::one_selected) {
        uint32_t selected = 0;
        for (const taken_scalar& field : taken) {
            selected |= field.number;
        }
        return selected == 0 ? complaint::none_selected : complaint::none;
    }
    return complaint::none;
}

std::string pack(const schema_row& row, const datastore_fields& fields, const std::vector<taken_scalar>& taken) {
    tuple_field packed_fields[TUPLE_FIELDS_MAX] = {};
    uint32_t mask = 0;
    size_t size = sizeof mask;
    for (size_t i = 0; i < fields.size(); i++) {
        packed_fields[i] = {static_cast<int32_t>(taken[i].number), taken[i].text.c_str()};
        mask |= fields[i] ? uint32_t{1} << i : 0;
        size += sizeof(uint32_t) + taken[i].text.size();
    }
    std::string packed(size, '\0');
    const std::string format = tuple_format(row);
    if (tuple_encode(packed.data(), packed.size(), format.c_str(), packed_fields,
                     static_cast<uint32_t>(row.fields.size()), mask, &size) != PLATFORM_OK) {
        return {};
    }
    packed.resize(size);
    return packed;
}

std::string display_scalar(const datastore_scalar& value) {
    if (const int64_t* number = std::get_if<int64_t>(&value)) {
        return std::to_string(*number);
    }
    if (const double* number = std::get_if<double>(&value)) {
        return text_format("%g", *number);
    }
    if (const bool* flag = std::get_if<bool>(&value)) {
        return *flag ? "true" : "false";
    }
    return '"' + text_escape_quoted(std::get<std::string>(value), shown_value) + '"';
}

datastore_fields without_absent_end(datastore_fields fields) {
    while (!fields.empty() && !fields.back()) {
        fields.pop_back();
    }
    return fields;
}

/// Packs an array. If one of its fields is invalid, `refusal` already holds the text.
complaint take_tuple(const schema_row& row, std::string_view path, const datastore_value& value, std::string& packed,
                     std::string& refusal) {
    if (!std::holds_alternative<datastore_fields>(value)) {
        return complaint::not_an_array;
    }
    const datastore_fields fields = without_absent_end(std::get<datastore_fields>(value));
    if (fields.size() > row.fields.size()) {
        return complaint::too_many_fields;
    }
    std::vector<taken_scalar> taken(fields.size());
    for (size_t i = 0; i < fields.size(); i++) {
        if (!fields[i]) {
            continue;
        }
        const schema_field& field = row.fields[i];
        const complaint what = take_scalar(field.form, *fields[i], taken[i]);
        if (what != complaint::none) {
            refusal =
                complain(what, text_format("%s: field %zu (%s)", schema_shown_path(path).c_str(), i + 1, field.name),
                         display_scalar(*fields[i]), schema_form_in_words(field.form));
            return what;
        }
    }
    const complaint what = check_tuple_rule(row, fields, taken);
    if (what == complaint::none) {
        packed = pack(row, fields, taken);
    }
    return what;
}

struct as_scalar {
    datastore_scalar operator()(const datastore_fields&) const { return false; }
    template <typename T>
    datastore_scalar operator()(const T& value) const {
        return value;
    }
};

/// Reads the value of a row that is not a tuple.
complaint take_plain(const schema_row& row, const datastore_value& value, datastore_stored& stored) {
    const bool is_text = row.form.kind == schema_kind::text;
    if (std::holds_alternative<datastore_fields>(value)) {
        return is_text                                ? complaint::not_a_text
               : row.form.kind == schema_kind::number ? complaint::not_a_number
                                                      : complaint::not_a_flag;
    }
    taken_scalar taken;
    const complaint what = take_scalar(row.form, std::visit(as_scalar(), value), taken);
    if (what != complaint::none) {
        return what;
    }
    if (is_text) {
        stored = {DATASTORE_VALUE_TEXT, taken.text + '\0'};
    } else {
        stored = {DATASTORE_VALUE_NUMBER,
                  std::string(reinterpret_cast<const char*>(&taken.number), sizeof taken.number)};
    }
    return complaint::none;
}

platform_status load_number(const schema_row& row, const std::string& bytes, datastore_value& value) {
    uint32_t number = 0;
    if (bytes.size() != sizeof number) {
        return EINVAL;
    }
    memcpy(&number, bytes.data(), sizeof number);
    if (row.form.kind == schema_kind::number) {
        value = static_cast<int64_t>(number);
    } else {
        value = number != 0;
    }
    return PLATFORM_OK;
}

platform_status load_text(const std::string& bytes, datastore_value& value) {
    // The only NUL is the one at the end.
    if (bytes.empty() || bytes.find('\0') + 1 != bytes.size()) {
        return EINVAL;
    }
    value = bytes.substr(0, bytes.size() - 1);
    return PLATFORM_OK;
}

datastore_scalar scalar_of(const schema_form& form, const tuple_field& field) {
    if (form.kind == schema_kind::text) {
        return std::string(field.text);
    }
    if (form.kind == schema_kind::number) {
        return static_cast<int64_t>(field.number);
    }
    return field.number != 0;
}

platform_status load_tuple(const schema_row& row, const std::string& bytes, datastore_value& value) {
    tuple_field unpacked[TUPLE_FIELDS_MAX];
    uint32_t mask = 0;
    if (tuple_decode_mask(bytes.data(), bytes.size(), tuple_format(row).c_str(), unpacked,
                          static_cast<uint32_t>(row.fields.size()), &mask) != PLATFORM_OK) {
        return EINVAL;
    }
    datastore_fields fields(row.fields.size());
    for (size_t i = 0; i < row.fields.size(); i++) {
        if ((mask >> i & 1) != 0) {
            fields[i] = scalar_of(row.fields[i].form, unpacked[i]);
        }
    }
    // A list ends with its last entry; a tuple shows all its fields.
    if (row.rule == schema_tuple_rule::list) {
        fields = without_absent_end(std::move(fields));
    }
    value = std::move(fields);
    return PLATFORM_OK;
}

uint32_t stored_kind(const schema_row& row) {
    switch (row.form.kind) {
        case schema_kind::text:
            return DATASTORE_VALUE_TEXT;
        case schema_kind::tuple:
            return DATASTORE_VALUE_TUPLE;
        default:
            return DATASTORE_VALUE_NUMBER;
    }
}

std::string list_of_fields(const schema_row& row) {
    std::string names;
    for (const schema_field& field : row.fields) {
        names += names.empty() ? "" : ", ";
        names += field.name;
    }
    return names;
}

}  // namespace

std::string schema_expected(const schema_row& row) {
    if (row.form.kind != schema_kind::tuple) {
        return schema_form_in_words(row.form);
    }
    if (row.rule == schema_tuple_rule::list) {
        return text_format("an array of 1 to %zu strings (%s), each %s", row.fields.size(), row.form.help,
                           schema_form_in_words(row.fields[0].form).c_str());
    }
    const char* format = row.rule == schema_tuple_rule::one_selected
                             ? "an array of at most %zu flags (%s), at least one of them true: %s"
                             : "an array of at most %zu fields (%s), null for an absent one: %s";
    return text_format(format, row.fields.size(), row.form.help, list_of_fields(row).c_str());
}

platform_status schema_store(const schema_row& row, std::string_view path, const datastore_value& value,
                             datastore_stored& stored, std::string& refusal) {
    std::string field_refusal;
    std::string packed;
    const bool is_tuple = row.form.kind == schema_kind::tuple;
    const complaint what =
        is_tuple ? take_tuple(row, path, value, packed, field_refusal) : take_plain(row, value, stored);
    if (what != complaint::none) {
        refusal = !field_refusal.empty()
                      ? field_refusal
                      : complain(what, schema_shown_path(path), schema_display(value), schema_expected(row));
        return EINVAL;
    }
    if (is_tuple) {
        stored = {DATASTORE_VALUE_TUPLE, std::move(packed)};
    }
    return PLATFORM_OK;
}

platform_status schema_load(const schema_row& row, const datastore_stored& stored, datastore_value& value) {
    if (stored.kind != stored_kind(row)) {
        return EINVAL;
    }
    switch (stored.kind) {
        case DATASTORE_VALUE_TEXT:
            return load_text(stored.bytes, value);
        case DATASTORE_VALUE_TUPLE:
            return load_tuple(row, stored.bytes, value);
        default:
            return load_number(row, stored.bytes, value);
    }
}

std::string schema_display(const datastore_value& value) {
    const datastore_fields* fields = std::get_if<datastore_fields>(&value);
    if (fields == nullptr) {
        return display_scalar(std::visit(as_scalar(), value));
    }
    std::string shown = "[";
    for (const std::optional<datastore_scalar>& field : *fields) {
        if (shown.size() > shown_value) {
            return shown + ", ...";
        }
        shown += shown.size() > 1 ? ", " : "";
        shown += field ? display_scalar(*field) : "null";
    }
    return shown + "]";
}
