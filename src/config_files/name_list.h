/// Lists of comma-separated names in buffers of a fixed size.
#ifndef CONFIG_FILES_NAME_LIST_H
#define CONFIG_FILES_NAME_LIST_H

#include <cstddef>

/// Appends a name to `list` (`size` bytes, NUL-terminated), preceded by a comma unless the list is empty. Excess
/// characters are cut at the end of the buffer. Returns whether the whole name fitted.
bool append_name(char* list, size_t size, const char* name);

/// Copies the first name of `*rest` into `name`, cut to `size` - 1 characters, and advances `*rest` past it. Names are
/// separated by any of the `separators`; empty ones are skipped. Returns false if none is left.
bool next_name(const char** rest, const char* separators, char* name, size_t size);

#endif
