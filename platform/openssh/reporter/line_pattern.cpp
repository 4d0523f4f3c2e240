#include "openssh/reporter/line_pattern.h"

#include <cstdint>

namespace openssh {

bool match_pattern(std::string_view pattern, std::string_view text, captures& found) {
    found = {};
    for (;;) {
        const size_t literal_size = pattern.find_first_of("%~");
        const std::string_view literal = pattern.substr(0, literal_size);
        if (!text.starts_with(literal)) {
            return false;
        }
        text.remove_prefix(literal.size());
        if (literal_size == std::string_view::npos) {
            return text.empty();
        }
        pattern.remove_prefix(literal_size);
        if (pattern.front() == '~') {
            return true;
        }
        pattern.remove_prefix(1);
        const std::string_view next = pattern.substr(0, pattern.find_first_of("%~"));
        const size_t size = next.empty() ? text.size() : text.find(next, 1);
        if (size == std::string_view::npos || size == 0 || found.count == captures::most) {
            return false;
        }
        found.pieces[found.count++] = text.substr(0, size);
        text.remove_prefix(size);
    }
}

bool number_of(std::string_view piece, unsigned long long& number) {
    unsigned long long value = 0;
    for (const char digit : piece) {
        if (digit < '0' || digit > '9' || value > (UINT64_MAX - static_cast<unsigned>(digit - '0')) / 10) {
            return false;
        }
        value = value * 10 + static_cast<unsigned>(digit - '0');
    }
    if (piece.empty()) {
        return false;
    }
    number = value;
    return true;
}

}  // namespace openssh
