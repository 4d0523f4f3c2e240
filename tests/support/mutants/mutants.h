/// Chooses the mutant while the program runs. Included before everything else in an instrumented build.
#ifndef MUTANTS_H
#define MUTANTS_H

#include <cstddef>
#include <type_traits>
#include <utility>

namespace mutants {

inline constexpr size_t most = 1 << 20;

extern unsigned selected;
extern unsigned char* reached;

/// Whether this mutant was selected. Records that the program got here.
inline bool on(unsigned id) {
    reached[id] = 1;
    return selected == id;
}

/// The same in functions that the compiler may call, too.
constexpr bool in(unsigned id) {
    return std::is_constant_evaluated() ? false : on(id);
}

// clang-format off
inline constexpr auto equal = [](const auto& a, const auto& b) { return a == b; };
inline constexpr auto unequal = [](const auto& a, const auto& b) { return a != b; };
inline constexpr auto less = [](const auto& a, const auto& b) { return a < b; };
inline constexpr auto at_most = [](const auto& a, const auto& b) { return a <= b; };
inline constexpr auto greater = [](const auto& a, const auto& b) { return a > b; };
inline constexpr auto at_least = [](const auto& a, const auto& b) { return a >= b; };
inline constexpr auto plus = [](auto&& a, auto&& b) { return a + b; };
inline constexpr auto minus = [](auto&& a, auto&& b) { return a - b; };
inline constexpr auto times = [](const auto& a, const auto& b) { return a * b; };
inline constexpr auto divided = [](const auto& a, const auto& b) { return a / b; };
inline constexpr auto modulo = [](const auto& a, const auto& b) { return b == 0 ? a : a % b; };
inline constexpr auto bit_and = [](const auto& a, const auto& b) { return a & b; };
inline constexpr auto bit_or = [](const auto& a, const auto& b) { return a | b; };
inline constexpr auto bit_xor = [](const auto& a, const auto& b) { return a ^ b; };
inline constexpr auto left = [](const auto& a, const auto& b) { return a << b; };
inline constexpr auto right = [](const auto& a, const auto& b) { return a >> b; };
// clang-format on

template <auto original, auto first>
constexpr bool compare(bool is_first, bool, const auto& a, const auto& b) {
    return is_first ? first(a, b) : original(a, b);
}

template <auto original, auto first, auto second>
constexpr bool compare(bool is_first, bool is_second, const auto& a, const auto& b) {
    return is_first ? first(a, b) : is_second ? second(a, b) : original(a, b);
}

template <auto original, auto other>
constexpr auto calculate(bool is_other, auto&& a, auto&& b) {
    return is_other ? static_cast<decltype(original(a, b))>(other(a, b)) : original(a, b);
}

/// a + b, or a.
template <typename left_text, typename right_text>
auto joined(bool is_other, left_text&& a, right_text&& b) {
    using text = decltype(std::forward<left_text>(a) + std::forward<right_text>(b));
    return is_other ? text(std::forward<left_text>(a)) : std::forward<left_text>(a) + std::forward<right_text>(b);
}

/// A literal, or the same with another character at `position`.
template <unsigned id, size_t position, char letter, size_t size>
const char (&text(const char (&original)[size]))[size] {
    if (!on(id)) {
        return original;
    }
    static char changed[size];
    for (size_t i = 0; i < size; i++) {
        changed[i] = i == position ? letter : original[i];
    }
    return changed;
}

/// The same in functions that the compiler may call, too.
template <unsigned id, size_t position, char letter, size_t size>
constexpr const char (&constant_text(const char (&original)[size]))[size] {
    return std::is_constant_evaluated() ? original : text<id, position, letter>(original);
}

}  // namespace mutants

#endif
