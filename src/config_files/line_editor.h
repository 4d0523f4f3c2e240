/// Line editors: change one keyword of a configuration file through a temporary file and a rename.
///
/// A file is the old one or the new one, never a mixture. Lines are matched by the keyword as a prefix of the line.
#ifndef CONFIG_FILES_LINE_EDITOR_H
#define CONFIG_FILES_LINE_EDITOR_H

#include <cstdint>

/// Adds (`add` = 1) or deletes (0) the keyword's line in `file`. `new_line` is keyword, blank, value; it is required when
/// adding, and when deleting a "Port" it names the line. Only the first matching line is replaced or dropped.
/// Sets `*change` to 1 when the content changed and never resets it. Returns 0, or -1 with errno (ENOENT: no such file)
/// and the file as it was.
int update_string_in_file(const char* file, const char* keyword, int add, const char* new_line, uint32_t* change);

/// The same for a keyword that has one line for each value: `new_line` is keyword, blank and a comma-separated list, and
/// is cut up in the process; every line of the keyword is replaced.
int update_multiple_strings_in_file(const char* file, const char* keyword, int add, char* new_line, uint32_t* change);

#endif
