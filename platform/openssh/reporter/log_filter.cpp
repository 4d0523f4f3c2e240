#include "openssh/reporter/log_filter.h"

#include <algorithm>
#include <cstring>

namespace openssh {

namespace {

/// sshd logs this line on the level "verbose", first of all, for each connection.
constexpr std::string_view verbose_line = "Connection from ";

/// A "verbose" line about a login that has neither succeeded nor failed yet. Failures are always shown, although sshd
/// logs some of them on that level.
bool is_verbose(const log_line& line) {
    return line.function == "auth_log" && (line.text.starts_with("Postponed ") || line.text.starts_with("Partial "));
}

}  // namespace

line_fate judge_line(log_filter& filter, std::string_view written, log_line& line) noexcept {
    const int level = debug_level_of(written);
    if (!parse_log_line(written, line)) {
        filter.shown_level = std::max(filter.shown_level, level);
        filter.shows_verbose = filter.shows_verbose || level > 0 || written.starts_with(verbose_line);
        return line_fate::pass;
    }
    const bool is_hidden = level > filter.shown_level || (is_verbose(line) && !filter.shows_verbose);
    return is_hidden ? line_fate::keep_back : line_fate::pass_bare;
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
