/// The schema of the router's configuration: one row per item, which defines its path and the form of its value.
///
/// Every change is checked against these rows before any of the agent's verifiers sees it. Handlers can therefore rely on
/// the form, the range and the harmlessness of every value and of every name in a path.
#ifndef LINUX_DATASTORE_SCHEMA_H
#define LINUX_DATASTORE_SCHEMA_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/status.h"

/// One plain value. A number that is not whole or does not fit arrives as a double and is refused with a message.
using datastore_scalar = std::variant<int64_t, double, bool, std::string>;

/// The fields of a tuple in order; an absent field has no value. Trailing absent fields may be missing.
using datastore_fields = std::vector<std::optional<datastore_scalar>>;

/// The value of an item, independent of its notation: as entered, or as stored.
using datastore_value = std::variant<int64_t, double, bool, std::string, datastore_fields>;

enum class schema_kind : uint8_t {
    number,    ///< whole number, stored as a uint32_t
    flag,      ///< true or false (1 and 0 are accepted too), stored as a uint32_t
    presence,  ///< true (or 1): only the item's existence matters; stored as a uint32_t
    text,      ///< UTF-8 text, stored with its NUL
    tuple      ///< several fields, stored packed (platform/value_tuple.h)
};

/// The characters allowed in a text or in a name in a path. Only `delimited` includes control characters, namely newline
/// and tab.
enum class schema_charset : uint8_t {
    printable,       ///< any UTF-8 without characters that are unsafe to show (text_is_unsafe)
    path,            ///< printable without blanks, quotes, backslashes and '#'
    word,            ///< printable ASCII without blanks, quotes, commas or backslashes
    algorithm_name,  ///< letters, digits and "-_.@+"
    name,            ///< letters, digits and "_-.", not beginning with '-' or '.'
    delimited        ///< lines of UTF-8 in matching delimiters; for items, never for fields
};

/// The form of one value, field or name.
struct schema_form {
    schema_kind kind;
    int64_t lowest;   ///< smallest number; for a text, its minimum length in bytes
    int64_t highest;  ///< largest number; for a text, its maximum length in bytes
    schema_charset charset;
    const char* help;  ///< meaning and unit, in a few words
};

struct schema_field {
    const char* name;
    schema_form form;
    const char* not_carried_out = nullptr;  ///< of a flag: why it has no effect on this machine; null if it has one
};

/// The condition on a tuple as a whole.
enum class schema_tuple_rule : uint8_t {
    none,
    list,         ///< a list: at least one field, without gaps
    one_selected  ///< flags, of which at least one is set
};

/// What the manual page and the help say about an item in addition to its form.
struct schema_guide {
    const char* default_value;   ///< the value in force while the item is not configured: a JSON value, or words
    const char* example;         ///< a JSON value
    const char* unit = nullptr;  ///< the unit of a number; null if there is none
};

struct schema_row {
    const char* pattern;  ///< absolute path; a component "*" matches any name of the form `wildcard`
    schema_form form;
    schema_guide guide;
    schema_form wildcard;                  ///< form of the names that match "*"; its help is null if there is none
    std::span<const schema_field> fields;  ///< of a tuple
    schema_tuple_rule rule;
    const char* not_carried_out = nullptr;  ///< why the item has no effect on this machine; null if it has one
};

/// All rows, in byte order of their patterns.
std::span<const schema_row> schema_rows();

/// The row of an item's path. Returns null if there is no such item, or if a name in the path does not have the
/// required form. `*refusal` (which may be null) then receives a text that names the path and what is allowed.
const schema_row* schema_find(std::string_view path, std::string* refusal);

/// Removes the first component of a path that does not begin with '/', and the '/' after it. Returns the component.
std::string_view schema_cut_component(std::string_view& path);

/// Position of a tuple's field, given its name; -1 if there is none.
int schema_field_index(const schema_row& row, std::string_view name);

/// A description of the form that a value of this row must have, as used in refusals: "a number from 5 to 120 (seconds,
/// login grace time)".
std::string schema_expected(const schema_row& row);

/// Why a value is only stored and not, or not wholly, carried out on this machine; empty if it is.
std::string schema_not_carried_out(const schema_row& row, const datastore_value& value);

/// A value as stored and as passed to handlers.
struct datastore_stored {
    uint32_t kind = 0;  ///< DATASTORE_VALUE_
    std::string bytes;  ///< a uint32_t, the text with its NUL, or the packed tuple

    bool operator==(const datastore_stored&) const = default;
};

/// Checks a value against a row and converts it to its stored form. Returns 0, or EINVAL with a text in `refusal` that
/// names the path, the value and what is expected, leaving `stored` unchanged.
platform_status schema_store(const schema_row& row, std::string_view path, const datastore_value& value,
                             datastore_stored& stored, std::string& refusal);

/// Converts a stored value back to the argument of schema_store. Returns 0, or EINVAL if the bytes do not have the
/// row's form, leaving `value` unchanged. The range is not checked: values accepted by an earlier version stay
/// readable.
platform_status schema_load(const schema_row& row, const datastore_stored& stored, datastore_value& value);

/// A value in a form suitable for a message: one line, with control characters and invalid UTF-8 escaped, and long
/// texts and arrays cut after about 80 characters.
std::string schema_display(const datastore_value& value);

/// A path as shown in messages: escaped, and truncated after 200 bytes.
std::string schema_shown_path(std::string_view path);

#endif
