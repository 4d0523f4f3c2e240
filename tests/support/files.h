/// Files in tests. None of these is seen by the diverted calls of call_faults.h.
#ifndef SUPPORT_FILES_H
#define SUPPORT_FILES_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The file's whole content; adds a test failure and returns nothing much when it cannot be read.
std::string read_file(const std::string& path);

/// The file's whole content; nothing when there is no such file.
std::optional<std::string> file_content(const std::string& path);

/// The file's lines without their newlines; adds a test failure when it cannot be read.
std::vector<std::string> file_lines(const std::string& path);

/// Writes the file anew, with the directories above it.
void write_file(const std::string& path, std::string_view content);

/// Whether something stands at the path.
bool path_exists(const std::string& path);

/// Removes what stands at the path, with all below it.
void remove_path(const std::string& path);

/// The names in a directory, in byte order.
std::vector<std::string> directory_names(const std::string& path);

#endif
