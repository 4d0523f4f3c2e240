/// Whole numbers in text. Neither allocates nor throws.
#ifndef PLATFORM_COMMON_NUMBER_H
#define PLATFORM_COMMON_NUMBER_H

#include <charconv>
#include <limits>
#include <optional>
#include <string_view>
#include <type_traits>

/// Parses the whole text as a decimal number between `lowest` and `highest`. Rejects blanks, a plus sign, and a minus
/// sign for unsigned numbers; accepts leading zeros.
template <typename number>
std::optional<number> number_parse(std::string_view text, number lowest = std::numeric_limits<number>::min(),
                                   std::type_identity_t<number> highest = std::numeric_limits<number>::max()) noexcept {
    static_assert(std::is_integral_v<number> && !std::is_same_v<number, bool>);
    number value = 0;
    const char* const end = text.data() + text.size();
    const auto [read, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || read != end || value < lowest || value > highest) {
        return std::nullopt;
    }
    return value;
}

#endif
