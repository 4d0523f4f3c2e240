/// Bounded text: text that is too long is cut at the end of the buffer.
#ifndef CORE_TEXT_H
#define CORE_TEXT_H

#include <cstddef>

/// Formats into `buffer` (`size` bytes, at least 1), always NUL-terminated. Returns the stored length. Leaves errno
/// unchanged.
size_t format_text(char* buffer, size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));

/// Copies `text` (null counts as empty) into `buffer`, cut to `size` - 1 characters. Returns the stored length.
size_t copy_text(char* buffer, size_t size, const char* text);

/// Whether `text` begins with `prefix`.
bool begins_with(const char* text, const char* prefix);

#endif
