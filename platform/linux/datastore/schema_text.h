/// Texts of the schema's messages.
#ifndef LINUX_DATASTORE_SCHEMA_TEXT_H
#define LINUX_DATASTORE_SCHEMA_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

#include "linux/datastore/schema.h"

/// A text made as by printf, of any length.
std::string text_format(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The length in bytes of the UTF-8 character at the start of `text` (RFC 3629), which is stored in `character`; 0 when
/// there is none.
size_t text_utf8_character(std::string_view text, uint32_t& character);

/// The text in one line for a message: control characters and bytes that are not UTF-8 as \xNN, quotes and backslashes
/// with a backslash before them, cut with "..." after `limit` characters.
std::string text_escape(std::string_view text, size_t limit);

/// Whether every character of the text is of the set. Text that is not UTF-8 has no set.
bool text_has_charset(std::string_view text, schema_charset charset);

/// Whether a text begins and ends with the same delimiter, a punctuation character of ASCII.
bool text_is_delimited(std::string_view text);

/// The form in words: "a number from 5 to 120 (seconds, login grace time)".
std::string text_of_form(const schema_form& form);

#endif
