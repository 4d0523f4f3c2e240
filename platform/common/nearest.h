/// Suggests the word that the user may have meant.
#ifndef PLATFORM_COMMON_NEAREST_H
#define PLATFORM_COMMON_NEAREST_H

#include <string_view>
#include <vector>

/// The candidate that needs the fewest insertions, deletions, replacements and swaps of neighbours to become `word`;
/// empty when none is close.
std::string_view nearest_word(std::string_view word, const std::vector<std::string_view>& candidates);

#endif
