/// Text for messages and files: printf into strings and buffers, UTF-8, and safe forms of untrusted text.
#ifndef PLATFORM_COMMON_TEXT_H
#define PLATFORM_COMMON_TEXT_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Like printf, but returns a string of whatever length is needed. May throw std::bad_alloc.
std::string text_format(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Like printf, into `buffer` of `size` bytes, at least 1; excess text is cut. Always NUL-terminated. Returns the
/// stored length. Neither allocates nor throws, and leaves errno unchanged.
size_t text_format_into(char* buffer, size_t size, const char* format, ...) noexcept
    __attribute__((format(printf, 3, 4)));
size_t text_vformat_into(char* buffer, size_t size, const char* format, va_list arguments) noexcept
    __attribute__((format(printf, 3, 0)));

/// The length in bytes of the UTF-8 character at the start of `text` (RFC 3629), which is stored in `character`; 0 if
/// there is none. Overlong forms, surrogates and numbers above U+10FFFF are invalid.
size_t text_utf8_character(std::string_view text, uint32_t& character) noexcept;

/// Whether a text is well-formed UTF-8.
bool text_is_utf8(std::string_view text) noexcept;

/// Whether a character is a control character, changes the text direction, or has no width: a terminal or a log might
/// interpret it, or it makes one text look like another.
bool text_is_unsafe(uint32_t character) noexcept;

/// The text as one line for a message, a terminal or a log, with invalid UTF-8 and unsafe characters escaped as \xNN. If longer than `size_max` bytes, it is cut between
/// characters and "..." is appended. May throw std::bad_alloc.
std::string text_escape(std::string_view text, size_t size_max);

/// The same for a text that a message puts in double quotes: quotes and backslashes are escaped with a backslash.
std::string text_escape_quoted(std::string_view text, size_t size_max);

/// The same for readers that may not support UTF-8: every byte of a non-ASCII character is escaped as \xNN.
std::string text_escape_to_ascii(std::string_view text, size_t size_max);

/// Formats a time, given in seconds since the epoch, as UTC: "2026-01-31T12:00:00Z". Returns an empty string if the time
/// cannot be represented as a calendar date. May throw std::bad_alloc.
std::string text_utc_time(int64_t seconds);

#endif
