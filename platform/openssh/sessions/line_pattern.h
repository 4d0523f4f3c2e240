/// Patterns of log texts, with holes for what they tell.
#ifndef OPENSSH_SESSIONS_LINE_PATTERN_H
#define OPENSSH_SESSIONS_LINE_PATTERN_H

#include <array>
#include <cstddef>
#include <string_view>

namespace openssh {

struct captures {
    static constexpr size_t most = 4;
    std::array<std::string_view, most> pieces = {};
    size_t count = 0;
};

/// Whether the whole text fits the pattern: "%" is a hole for a non-empty piece up to the first place where what follows the
/// hole in the pattern fits, "~" at the end stands for any rest. There are at most `captures::most` holes.
bool match_pattern(std::string_view pattern, std::string_view text, captures& found);

/// A capture as a number; false when it is none of 64 bits.
bool number_of(std::string_view piece, unsigned long long& number);

}  // namespace openssh

#endif
