/// JSON values and the datastore's.
#ifndef LINUX_CONTROL_VALUE_H
#define LINUX_CONTROL_VALUE_H

#include <optional>
#include <string>
#include <string_view>

#include "control_protocol/json_text.h"
#include "linux/datastore/schema.h"

/// A value as JSON gives it: number, boolean and string as such; for a tuple an array with null for an absent field, or an
/// object by field name. Only the notation is looked at here; whether the value fits is schema_store's to say. Nothing,
/// with a text in `refusal`, for a value that no item can have.
std::optional<datastore_value> control_value_from_json(const schema_row& row, std::string_view path,
                                                       const control_json& json, std::string& refusal);

/// A value as it was typed: JSON; where the row wants text, whatever is no JSON string, array or object is that text
/// itself.
std::optional<datastore_value> control_value_from_word(const schema_row& row, std::string_view path,
                                                       std::string_view word, std::string& refusal);

/// The JSON notation of a value; read back it gives the same value.
control_json control_value_to_json(const datastore_value& value);

#endif
