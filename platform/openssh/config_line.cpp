#include "openssh/config_line.h"

#include "openssh/text.h"

namespace openssh {

setting parse_line(size_t number, std::string_view line) {
    constexpr std::string_view blanks = " \t";
    line = trimmed(line);
    if (line.empty() || line[0] == '#') {
        return {number, {}, {}};
    }
    const size_t keyword_end = std::min(line.find_first_of(" \t="), line.size());
    std::string_view value = trimmed(line.substr(keyword_end));
    if (value.starts_with('=')) {
        value = trimmed(value.substr(1));
    }
    if (value.find_first_of("\"'") == std::string_view::npos) {
        for (size_t i = 0; i < value.size(); ++i) {
            if (value[i] == '#' && (i == 0 || blanks.find(value[i - 1]) != std::string_view::npos)) {
                value = trimmed(value.substr(0, i));
            }
        }
    }
    return {number, line.substr(0, keyword_end), value};
}

bool has_control_character(std::string_view line) {
    return std::any_of(line.begin(), line.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < 0x20 && c != '\t') || byte == 0x7f;
    });
}

}  // namespace openssh
