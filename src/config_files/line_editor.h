/// Line editors: change one keyword of a configuration file by writing a temporary file and renaming it.
///
/// A reader sees the old file or the new one, never a mixture. A line matches if it begins with the keyword.
#ifndef CONFIG_FILES_LINE_EDITOR_H
#define CONFIG_FILES_LINE_EDITOR_H

#include <cstdint>

/// Adds (`add` = 1) or deletes (0) the keyword's line in `file`. `new_line` is the keyword, a blank and the value. It
/// is required when adding; when deleting a "Port" it identifies the line. Only the first matching line is replaced or
/// dropped. Sets `*change` to 1 if the content changed and never resets it. Returns 0, or -1 with errno (ENOENT: no
/// such file), leaving the file unchanged.
int update_string_in_file(const char* file, const char* keyword, int add, const char* new_line, uint32_t* change);

/// The same for a keyword that has one line per value. `new_line` is the keyword, a blank and a comma-separated list,
/// and is modified in the process; every line of the keyword is replaced.
int update_multiple_strings_in_file(const char* file, const char* keyword, int add, char* new_line, uint32_t* change);

#endif
