#include "linux/control/value.h"

#include <cmath>

#include "common/text.h"
#include "linux/control/service_json.h"
#include "linux/datastore/service_values.h"

namespace {

constexpr size_t shown_value = 80;   ///< characters of a value
constexpr size_t shown_error = 300;  ///< characters of a parser's error

struct value_place {
    const schema_row& row;
    std::string_view path;
    std::string& refusal;
};

/// The format takes the path, the value and the expected form.
std::nullopt_t refuse(const value_place& place, const char* format, const std::string& value) {
    place.refusal =
        text_format(format, schema_shown_path(place.path).c_str(), value.c_str(), schema_expected(place.row).c_str());
    return std::nullopt;
}

std::string shown(const control_json& value) {
    return text_escape(control_json_text(value), shown_value);
}

/// Above this a double cannot represent every whole number.
constexpr double exact_number_max = 9007199254740992.0;

/// A number outside the range of every item.
bool is_beyond_range(const control_json& json) {
    if (json.is_number_float()) {
        return std::fabs(json.get<double>()) > exact_number_max;
    }
    return json.is_number_unsigned() && json.get<uint64_t>() > INT64_MAX;
}

/// A whole number is accepted in any notation: 45, 45.0 and 4.5e1 are the same number in JSON.
datastore_scalar number_of(const control_json& json) {
    if (json.is_number_float() && std::trunc(json.get<double>()) != json.get<double>()) {
        return json.get<double>();
    }
    return json.get<int64_t>();
}

/// Only for numbers, booleans and texts.
datastore_scalar scalar_of(const control_json& json) {
    if (json.is_boolean()) {
        return json.get<bool>();
    }
    if (json.is_number()) {
        return number_of(json);
    }
    return json.get_ref<const std::string&>();
}

bool is_scalar(const control_json& json) {
    return json.is_boolean() || json.is_number() || json.is_string();
}

/// Why a value cannot be a field; null if it can.
const char* wrong_field_format(const control_json& field) {
    if (!field.is_null() && !is_scalar(field)) {
        return "%s: %s cannot be a field of a value; expected %s";
    }
    return is_beyond_range(field) ? "%s: %s is out of range; expected %s" : nullptr;
}

std::optional<datastore_value> fields_of_array(const value_place& place, const control_json& array) {
    datastore_fields fields;
    fields.reserve(array.size());
    for (const control_json& field : array) {
        if (const char* format = wrong_field_format(field); format != nullptr) {
            return refuse(place, format, shown(field));
        }
        fields.push_back(field.is_null() ? std::nullopt : std::optional(scalar_of(field)));
    }
    return fields;
}

std::optional<datastore_value> fields_of_object(const value_place& place, const control_json& object) {
    datastore_fields fields(place.row.fields.size());
    for (const auto& [name, field] : object.items()) {
        const int index = schema_field_index(place.row, name);
        if (index < 0) {
            return refuse(place, "%s: unknown field \"%s\"; expected %s", text_escape_quoted(name, shown_value));
        }
        if (const char* format = wrong_field_format(field); format != nullptr) {
            return refuse(place, format, shown(field));
        }
        fields[static_cast<size_t>(index)] = field.is_null() ? std::nullopt : std::optional(scalar_of(field));
    }
    // A list given by field names ends with its last field, like one given as an array.
    while (place.row.rule == schema_tuple_rule::list && !fields.empty() && !fields.back()) {
        fields.pop_back();
    }
    return fields;
}

/// Whether the word can only be meant as JSON, so that a syntax error in it must be reported.
bool looks_like_json(std::string_view word) {
    return word.starts_with('{') || word.starts_with('[') || word.starts_with('"');
}

struct to_json {
    control_json operator()(const datastore_fields& fields) const {
        control_json array = control_json::array();
        for (const std::optional<datastore_scalar>& field : fields) {
            array.push_back(field ? std::visit([](const auto& value) { return control_json(value); }, *field)
                                  : control_json());
        }
        return array;
    }
    template <class scalar>
    control_json operator()(const scalar& value) const {
        return value;
    }
};

/// `notation` is how the value was written.
std::optional<datastore_value> value_of(const value_place& place, const control_json& json,
                                        const std::string& notation) {
    if (json.is_array()) {
        return fields_of_array(place, json);
    }
    if (json.is_object() && place.row.form.kind == schema_kind::tuple) {
        return fields_of_object(place, json);
    }
    if (!is_scalar(json)) {
        return refuse(place, "%s: %s cannot be stored; expected %s", notation);
    }
    if (is_beyond_range(json)) {
        return refuse(place, "%s: %s is out of range; expected %s", notation);
    }
    return std::visit([](const auto& value) { return datastore_value(value); }, scalar_of(json));
}

}  // namespace

std::optional<datastore_value> control_value_from_json(const schema_row& row, std::string_view path,
                                                       const control_json& json, std::string& refusal) {
    return value_of({row, path, refusal}, json, shown(json));
}

std::optional<datastore_value> control_value_from_word(const schema_row& row, std::string_view path,
                                                       std::string_view word, std::string& refusal) {
    std::string error;
    const std::optional<control_json> json = control_json_parse(word, error);
    const bool structured = json.has_value() && (json->is_string() || json->is_structured());
    if (row.form.kind == schema_kind::text && !structured && !looks_like_json(word)) {
        return std::string(word);
    }
    if (json.has_value()) {
        return value_of({row, path, refusal}, *json, text_escape(word, shown_value));
    }
    if (looks_like_json(word)) {
        refusal = text_format("%s: %s is not valid: %s; expected %s", schema_shown_path(path).c_str(),
                              text_escape(word, shown_value).c_str(), text_escape(error, shown_error).c_str(),
                              schema_expected(row).c_str());
        return std::nullopt;
    }
    return std::string(word);
}

control_json control_value_to_json(const datastore_value& value) {
    return std::visit(to_json(), value);
}

control_json control_stored_to_json(const std::string& path, const datastore_stored& stored) {
    control_json json;
    if (datastore_service_kind_of(path) != nullptr && control_service_value_to_json(path, stored, json)) {
        return json;
    }
    datastore_value value;
    const schema_row* row = schema_find(path, nullptr);
    return row != nullptr && schema_load(*row, stored, value) == PLATFORM_OK ? control_value_to_json(value)
                                                                             : control_json("unknown to this version");
}
