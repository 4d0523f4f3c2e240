/// Patterns for log texts, with placeholders for the values.
#ifndef OPENSSH_REPORTER_LINE_PATTERN_H
#define OPENSSH_REPORTER_LINE_PATTERN_H

#include <array>
#include <cstddef>
#include <string_view>

namespace openssh {

struct captures {
    static constexpr size_t most = 4;
    std::array<std::string_view, most> pieces = {};
    size_t count = 0;
};

/// Whether the whole text matches the pattern. "%" captures a non-empty text up to the first match of what follows it
/// in the pattern; "~" at the end matches any rest. A pattern has at most `captures::most` captures.
bool match_pattern(std::string_view pattern, std::string_view text, captures& found);

/// Converts a capture to a number; false if it is not a 64-bit number.
bool number_of(std::string_view piece, unsigned long long& number);

}  // namespace openssh

#endif
