/// Lists of names in buffers of a fixed size, the names separated by commas.
#ifndef CONFIG_FILES_NAME_LIST_H
#define CONFIG_FILES_NAME_LIST_H

#include <cstddef>

/// Appends a name to the list in `list` (`size` bytes, NUL-terminated), after a comma unless the list is empty. What does
/// not fit is cut at the buffer's end. Returns whether all of it fitted.
bool append_name(char* list, size_t size, const char* name);

/// Copies the first name of `*rest` into `name`, cut to `size` - 1 characters, and moves `*rest` behind it. Names are
/// what stands between any of the `separators`; empty ones are passed over. Returns false when there is none left.
bool next_name(const char** rest, const char* separators, char* name, size_t size);

#endif
