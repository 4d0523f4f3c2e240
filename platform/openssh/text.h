/// Small text routines that the launcher's files share.
#ifndef OPENSSH_TEXT_H
#define OPENSSH_TEXT_H

#include <string>
#include <string_view>
#include <vector>

namespace openssh {

/// As printf, into a string of whatever length is needed.
std::string format_text(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// What may be shown of text from a file: bytes outside printable ASCII as \xNN, at most 200 characters and then "...".
std::string shown(std::string_view text);

/// The text in lower case; only ASCII letters change.
std::string lower_case(std::string_view text);

/// Compares without regard to the case of ASCII letters.
bool equal_ignoring_case(std::string_view left, std::string_view right);

/// The text without blanks, tabs, line ends and form feeds at both ends.
std::string_view trimmed(std::string_view text);

/// The non-empty pieces between any of the separators; views into `text`.
std::vector<std::string_view> split(std::string_view text, std::string_view separators);

/// The names in order with commas between them.
std::string joined(const std::vector<std::string_view>& names);

}  // namespace openssh

#endif
