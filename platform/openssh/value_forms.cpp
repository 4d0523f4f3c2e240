#include "openssh/value_forms.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>

#include "openssh/text.h"

namespace openssh {

namespace {

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_one_of(std::string_view value, std::initializer_list<std::string_view> words) {
    return std::any_of(words.begin(), words.end(),
                       [&](std::string_view word) { return equal_ignoring_case(word, value); });
}

/// Consumes a decimal number at the start of the text; nothing if there is no digit or the number exceeds 63 bits.
std::optional<int64_t> take_number(std::string_view& text) {
    constexpr int64_t largest = std::numeric_limits<int64_t>::max();
    size_t length = 0;
    int64_t number = 0;
    for (; length < text.size() && is_digit(text[length]); ++length) {
        const int64_t digit = text[length] - '0';
        if (number > (largest - digit) / 10) {
            return std::nullopt;
        }
        number = number * 10 + digit;
    }
    if (length == 0) {
        return std::nullopt;
    }
    text.remove_prefix(length);
    return number;
}

bool is_number_between(std::string_view value, int64_t lowest, int64_t highest) {
    const std::optional<int64_t> number = take_number(value);
    return number && value.empty() && *number >= lowest && *number <= highest;
}

/// Consumes a time unit at the start of the text and returns its length in seconds; 1 at the end of the text; 0 for an
/// unknown unit.
int64_t take_time_unit(std::string_view& text) {
    struct unit {
        char letter;
        int64_t seconds;
    };
    constexpr unit units[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}, {'w', 604800}};
    if (text.empty()) {
        return 1;
    }
    const char letter = lower_case(text.substr(0, 1))[0];
    text.remove_prefix(1);
    for (const unit& row : units) {
        if (row.letter == letter) {
            return row.seconds;
        }
    }
    return 0;
}

/// The factor of a suffix of sshd's data volumes, or 0 if the suffix is unknown.
int64_t volume_factor(std::string_view suffix) {
    struct unit {
        std::string_view suffix;
        unsigned shift;
    };
    constexpr unit units[] = {{"", 0}, {"b", 0}, {"k", 10}, {"m", 20}, {"g", 30}, {"t", 40}, {"p", 50}, {"e", 60}};
    for (const unit& row : units) {
        if (equal_ignoring_case(row.suffix, suffix)) {
            return int64_t{1} << row.shift;
        }
    }
    return 0;
}

bool is_rekey_volume(std::string_view value) {
    constexpr int64_t smallest = 16;
    if (value == "default") {
        return true;
    }
    std::string_view rest = value;
    const std::optional<int64_t> number = take_number(rest);
    const int64_t factor = volume_factor(rest);
    if (!number || factor == 0 || *number > std::numeric_limits<int64_t>::max() / factor) {
        return false;
    }
    const int64_t bytes = *number * factor;
    return bytes == 0 || bytes >= smallest;
}

bool is_hex_byte(std::string_view value) {
    if (!value.starts_with("0x") && !value.starts_with("0X")) {
        return false;
    }
    const std::string_view digits = value.substr(2);
    const size_t leading = std::min(digits.find_first_not_of('0'), digits.size());
    return !digits.empty() && digits.size() - leading <= 2 &&
           digits.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

bool is_type_of_service(std::string_view value) {
    // sshd would read a number with a leading 0 as octal, unlike the range check here.
    const bool decimal = is_number_between(value, 0, 255) && (value == "0" || value[0] != '0');
    return decimal || is_hex_byte(value) ||
           is_one_of(value, {"af11", "af12", "af13", "af21", "af22",     "af23",       "af31",        "af32", "af33",
                             "af41", "af42", "af43", "cs0",  "cs1",      "cs2",        "cs3",         "cs4",  "cs5",
                             "cs6",  "cs7",  "ef",   "le",   "lowdelay", "throughput", "reliability", "none"});
}

bool is_absolute_path(std::string_view value) {
    return value.starts_with('/') && value.find_first_of(" \t\"'\\") == std::string_view::npos;
}

}  // namespace

bool is_yes_or_no(std::string_view value) {
    return is_one_of(value, {"yes", "no"});
}

bool is_port(std::string_view value) {
    return is_number_between(value, 1, 65535);
}

bool is_count(std::string_view value) {
    return is_number_between(value, 0, std::numeric_limits<int32_t>::max());
}

bool is_time(std::string_view value) {
    constexpr int64_t longest = std::numeric_limits<int32_t>::max();
    int64_t total = 0;
    do {
        const std::optional<int64_t> number = take_number(value);
        const int64_t seconds = number ? take_time_unit(value) : 0;
        if (seconds == 0 || *number > longest / seconds) {
            return false;
        }
        total += *number * seconds;
    } while (!value.empty() && total <= longest);
    return total <= longest;
}

bool is_rekey_limit(std::string_view value) {
    const auto words = split(value, " \t");
    if (words.empty() || words.size() > 2 || !is_rekey_volume(words[0])) {
        return false;
    }
    return words.size() == 1 || words[1] == "none" || is_time(words[1]);
}

bool is_ip_qos(std::string_view value) {
    const auto words = split(value, " \t");
    return (words.size() == 1 || words.size() == 2) && std::all_of(words.begin(), words.end(), is_type_of_service);
}

bool is_log_level(std::string_view value) {
    return is_one_of(value, {"quiet", "fatal", "error", "info", "verbose", "debug", "debug1", "debug2", "debug3"});
}

bool is_forwarding(std::string_view value) {
    return is_one_of(value, {"no", "yes", "local", "remote", "all"});
}

bool is_root_login(std::string_view value) {
    return is_one_of(value, {"yes", "no", "without-password", "prohibit-password", "forced-commands-only"});
}

bool is_host_key_checking(std::string_view value) {
    return is_one_of(value, {"yes", "no", "ask", "off", "accept-new"});
}

bool is_public_key_authentication(std::string_view value) {
    return is_one_of(value, {"yes", "no", "unbound", "host-bound"});
}

bool is_path_or_none(std::string_view value) {
    return value == "none" || is_absolute_path(value);
}

bool is_key_path(std::string_view value) {
    return is_absolute_path(value);
}

bool is_subsystem(std::string_view value) {
    const auto words = split(value, " \t");
    return words.size() >= 2 && (words[1].starts_with('/') || words[1] == "internal-sftp") &&
           value.find_first_of("\"'\\") == std::string_view::npos;
}

bool is_algorithm_list(std::string_view value) {
    return !value.empty() && value.find_first_of("+-^") != 0;
}

bool is_any_text(std::string_view value) {
    char open = '\0';
    for (size_t i = 0; i < value.size(); ++i) {
        const char c = value[i];
        if (c == '\\') {
            ++i;
        } else if (open == '\0' && (c == '"' || c == '\'')) {
            open = c;
        } else if (c == open) {
            open = '\0';
        }
    }
    return !value.empty() && open == '\0';
}

}  // namespace openssh
