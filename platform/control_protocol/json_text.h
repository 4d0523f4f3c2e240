/// JSON read from untrusted sockets, files and command lines (RFC 8259, UTF-8).
#ifndef CONTROL_PROTOCOL_JSON_TEXT_H
#define CONTROL_PROTOCOL_JSON_TEXT_H

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

/// Preserves the order of an object's members. Its operator[] and find take linear time: fine for a request, but not for
/// a whole configuration.
using control_json = nlohmann::ordered_json;

enum : size_t {
    CONTROL_JSON_DEPTH_MAX = 16,
    /// Values in one document, including the members of objects and elements of arrays. Limits the memory used by a
    /// frame full of tiny values.
    CONTROL_JSON_VALUES_MAX = 500'000
};

/// Parses one whole document. Refuses, with the reason in `error` (one line, UTF-8, without control characters), invalid
/// JSON, invalid UTF-8, trailing bytes, duplicate names in an object, and documents that exceed the limits for depth or
/// number of values, the latter before anything is built. Throws only std::bad_alloc, which leaves nothing behind.
std::optional<control_json> control_json_parse(std::string_view text, std::string& error);

/// Empties a value without needing memory, unlike its destructor, which would end the process if it found none. To be
/// called for values of others' making before they go.
void control_json_release(control_json& value) noexcept;

/// Releases a value at the end of a scope.
class control_json_guard {
  public:
    explicit control_json_guard(control_json& value) : guarded(value) {}
    ~control_json_guard() { control_json_release(guarded); }
    control_json_guard(const control_json_guard&) = delete;
    control_json_guard& operator=(const control_json_guard&) = delete;

  private:
    control_json& guarded;
};

/// A value as compact JSON text; bytes that are not UTF-8 are replaced.
std::string control_json_text(const control_json& value);

#endif
