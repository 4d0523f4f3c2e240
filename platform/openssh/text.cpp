#include "openssh/text.h"

#include <algorithm>

#include "common/text.h"

namespace openssh {

namespace {

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

std::string shown(std::string_view text) {
    constexpr size_t longest = 200;
    return text_escape_to_ascii(text, longest);
}

std::string lower_case(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), lower);
    return result;
}

bool equal_ignoring_case(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return lower(a) == lower(b); });
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n\f";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::vector<std::string_view> split(std::string_view text, std::string_view separators) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    while ((start = text.find_first_not_of(separators, start)) != std::string_view::npos) {
        const size_t end = std::min(text.find_first_of(separators, start), text.size());
        pieces.push_back(text.substr(start, end - start));
        start = end;
    }
    return pieces;
}

std::string joined(const std::vector<std::string_view>& names) {
    std::string text;
    for (const std::string_view name : names) {
        text.append(text.empty() ? "" : ",").append(name);
    }
    return text;
}

}  // namespace openssh
