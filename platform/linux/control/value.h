/// Conversion between JSON values and the datastore's values.
#ifndef LINUX_CONTROL_VALUE_H
#define LINUX_CONTROL_VALUE_H

#include <optional>
#include <string>
#include <string_view>

#include "control_protocol/json_text.h"
#include "linux/datastore/schema.h"

/// Converts JSON: numbers, booleans and strings directly; for a tuple, an array with null for an absent field or an object
/// of field names. Checks only the notation; schema_store checks the value. Returns nothing, with a message in `refusal`,
/// for a value that no item can have.
std::optional<datastore_value> control_value_from_json(const schema_row& row, std::string_view path,
                                                       const control_json& json, std::string& refusal);

/// Converts a value as typed: JSON. Where the row expects a string, anything but a JSON string, array or object is taken
/// literally.
std::optional<datastore_value> control_value_from_word(const schema_row& row, std::string_view path,
                                                       std::string_view word, std::string& refusal);

/// The JSON notation of a value; converting it back yields the same value.
control_json control_value_to_json(const datastore_value& value);

/// The same for the stored value of the item `path`; a text in its place if this version knows no such item or value.
control_json control_stored_to_json(const std::string& path, const datastore_stored& stored);

#endif
