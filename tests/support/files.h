/// Helpers for files. The faults of call_faults.h do not affect them.
#ifndef SUPPORT_FILES_H
#define SUPPORT_FILES_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The file's whole content; adds a test failure and returns an empty text if it cannot be read.
std::string read_file(const std::string& path);

/// The file's whole content; nullopt if there is no such file.
std::optional<std::string> file_content(const std::string& path);

/// The file's lines without newlines; adds a test failure if it cannot be read.
std::vector<std::string> file_lines(const std::string& path);

/// Replaces the file's content; creates it and its directories if they are missing.
void write_file(const std::string& path, std::string_view content);

/// Whether the path exists, also as a dangling link.
bool path_exists(const std::string& path);

/// Removes the path and everything below it.
void remove_path(const std::string& path);

/// The names in a directory, in byte order.
std::vector<std::string> directory_names(const std::string& path);

#endif
