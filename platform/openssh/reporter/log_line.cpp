#include "openssh/reporter/log_line.h"

namespace openssh {

namespace {

constexpr std::string_view preauth_mark = " [preauth]";

bool is_lower(char c) {
    return c >= 'a' && c <= 'z';
}
bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
bool is_name(char c) {
    return is_lower(c) || is_digit(c) || (c >= 'A' && c <= 'Z') || c == '_';
}
bool is_file_name(char c) {
    return is_name(c) || c == '-' || c == '.';
}
bool is_severity(char c) {
    return is_lower(c) || is_digit(c);
}

bool take(std::string_view& rest, std::string_view expected) {
    if (!rest.starts_with(expected)) {
        return false;
    }
    rest.remove_prefix(expected.size());
    return true;
}

/// Consumes the longest non-empty run of such characters.
bool take_run(std::string_view& rest, bool (*belongs)(char), std::string_view& run) {
    size_t length = 0;
    while (length < rest.size() && belongs(rest[length])) {
        ++length;
    }
    run = {rest.data(), length};
    rest.remove_prefix(length);
    return length != 0;
}

bool take_number(std::string_view& rest, unsigned long& number) {
    constexpr size_t most_digits = 10;
    std::string_view digits;
    if (!take_run(rest, is_digit, digits) || digits.size() > most_digits) {
        return false;
    }
    number = 0;
    for (const char digit : digits) {
        number = number * 10 + static_cast<unsigned long>(digit - '0');
    }
    return true;
}

bool take_tag(std::string_view& rest, log_line& line) {
    unsigned long line_number = 0;
    return take_run(rest, is_file_name, line.file) && line.file.ends_with(".c") && take(rest, ":") &&
           take_run(rest, is_name, line.function) && take(rest, "():") && take_number(rest, line_number) &&
           take(rest, " (pid=") && take_number(rest, line.pid) && take(rest, "): ");
}

}  // namespace

bool parse_log_line(std::string_view written, log_line& line) noexcept {
    log_line found;
    std::string_view rest = written;
    if (!take_tag(rest, found)) {
        rest = written;
        if (!take_run(rest, is_severity, found.severity) || !take(rest, ": ") || !take_tag(rest, found)) {
            return false;
        }
    }
    while (!rest.empty() && (rest.back() == '\n' || rest.back() == '\r')) {
        rest.remove_suffix(1);
    }
    found.before_authentication = rest.ends_with(preauth_mark);
    if (found.before_authentication) {
        rest.remove_suffix(preauth_mark.size());
    }
    found.text = rest;
    line = found;
    return true;
}

int debug_level_of(std::string_view written) noexcept {
    constexpr std::string_view debug = "debug";
    if (!take(written, debug) || written.size() < 2 || written[1] != ':' || written[0] < '1' || written[0] > '3') {
        return 0;
    }
    return written[0] - '0';
}

}  // namespace openssh
