/// Lines of sshd's configuration files.
#ifndef OPENSSH_CONFIG_LINE_H
#define OPENSSH_CONFIG_LINE_H

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace openssh {

/// Longer lines are ignored; the agent never writes more than 4096 bytes.
constexpr size_t longest_line = 8192;

struct setting {
    size_t line;
    std::string_view keyword;
    std::string_view value;
};

/// Splits a line as sshd does: keyword, blanks or one "=", and the value up to a comment. The keyword is empty for a
/// blank line or a comment.
setting parse_line(size_t number, std::string_view line);

bool has_control_character(std::string_view line);

/// Calls `visit(number, line)` for each line, with or without a line feed at the end of the last one.
template <typename Visit>
void for_each_line(std::string_view text, Visit visit) {
    size_t number = 0;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        visit(++number, text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

}  // namespace openssh

#endif
