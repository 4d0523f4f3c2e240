#include "openssh/reporter/log_filter.h"

#include <algorithm>
#include <cstring>

namespace openssh {

line_fate judge_line(log_filter& filter, std::string_view written, log_line& line) noexcept {
    const int level = debug_level_of(written);
    if (!parse_log_line(written, line)) {
        filter.shown_level = std::max(filter.shown_level, level);
        return line_fate::pass;
    }
    return level > filter.shown_level ? line_fate::keep_back : line_fate::pass_bare;
}

size_t write_bare_line(const log_line& line, char* buffer, size_t size) noexcept {
    size_t length = 0;
    const auto add = [&](std::string_view piece) {
        const size_t fits = std::min(piece.size(), size - length);
        std::memcpy(buffer + length, piece.data(), fits);
        length += fits;
    };
    if (!line.severity.empty()) {
        add(line.severity);
        add(": ");
    }
    add(line.text);
    if (line.before_authentication) {
        add(" [preauth]");
    }
    return length;
}

}  // namespace openssh
