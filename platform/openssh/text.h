/// Small text routines shared by the launcher's files.
#ifndef OPENSSH_TEXT_H
#define OPENSSH_TEXT_H

#include <string>
#include <string_view>
#include <vector>

namespace openssh {

/// The form of a file's text in messages: escaped to ASCII, truncated to 200 bytes and "...".
std::string shown(std::string_view text);

/// The text in lower case; only ASCII letters change.
std::string lower_case(std::string_view text);

/// Compares ignoring the case of ASCII letters.
bool equal_ignoring_case(std::string_view left, std::string_view right);

/// The text without leading and trailing blanks, tabs, line ends and form feeds.
std::string_view trimmed(std::string_view text);

/// The non-empty pieces between any of the separators; views into `text`.
std::vector<std::string_view> split(std::string_view text, std::string_view separators);

/// The names in order, separated by commas.
std::string joined(const std::vector<std::string_view>& names);

}  // namespace openssh

#endif
