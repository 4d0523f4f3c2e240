/// JSON as it is read from sockets, files and command lines that need not mean well (RFC 8259, UTF-8).
#ifndef CONTROL_PROTOCOL_JSON_TEXT_H
#define CONTROL_PROTOCOL_JSON_TEXT_H

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

/// Keeps the members of an object in their order. Its operator[] and find are linear: fine for a request, not for a
/// whole configuration.
using control_json = nlohmann::ordered_json;

enum : size_t {
    CONTROL_JSON_DEPTH_MAX = 16,
    /// Values in one document, the members of objects and elements of arrays counted: what bounds the memory that a
    /// frame full of tiny values takes.
    CONTROL_JSON_VALUES_MAX = 500'000
};

/// Reads one whole document. Refused, with the reason in `error` (one line, UTF-8, without control characters): what is
/// no JSON, is not UTF-8, has bytes behind the document, an object with two members of the same name, or more depth or
/// values than the limits allow. Throws nothing but std::bad_alloc.
std::optional<control_json> control_json_parse(std::string_view text, std::string& error);

/// A value as compact JSON text; bytes that are not UTF-8 are replaced.
std::string control_json_text(const control_json& value);

/// Whether a text is well-formed UTF-8.
bool control_is_utf8(std::string_view text);

/// A text fit for a message: one line, bytes that are not UTF-8, control characters and characters that change the
/// direction of others or take no width escaped as \xNN, cut after `length_max` bytes with "..." behind it.
std::string control_printable(std::string_view text, size_t length_max);

#endif
