#include "linux/process/platform_config.h"

#include <cerrno>
#include <optional>
#include <string_view>

#include "common/files.h"
#include "common/number.h"
#include "common/text.h"
#include "linux/process/paths.h"
#include "platform/process_manager.h"

namespace {

constexpr size_t file_size_max = 65536;

struct setting {
    std::string_view key;
    bool (*parse)(std::string_view value, platform_config& config);
    const char* allowed;
};

bool parse_role(std::string_view value, platform_config& config) {
    if (value != "primary" && value != "standby") {
        return false;
    }
    config.role = PROCESS_ROLE_PRIMARY;
    if (value == "standby") {
        config.role = PROCESS_ROLE_STANDBY;
    }
    config.role_is_stated = true;
    return true;
}

bool parse_node_number(std::string_view value, platform_config& config) {
    // All ones means "unknown" in records.
    const std::optional<uint32_t> number = number_parse<uint32_t>(value, 0, UINT32_MAX - 1);
    config.node_number = number.value_or(config.node_number);
    return number.has_value();
}

bool parse_commits_kept(std::string_view value, platform_config& config) {
    const std::optional<uint32_t> count = number_parse<uint32_t>(value, 1, 10000);
    config.commits_kept = count.value_or(config.commits_kept);
    return count.has_value();
}

constexpr setting settings[] = {
    {"role", parse_role, "primary or standby"},
    {"node_number", parse_node_number, "a number from 0 to 4294967294"},
    {"commits_kept", parse_commits_kept, "a number from 1 to 10000"},
};

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// The text may be a binary file's.
std::string shown(std::string_view text) {
    return text_escape(text, 64);
}

/// Empty if the line is valid, otherwise what is wrong with it.
std::string read_line(std::string_view line, platform_config& config) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
        return "\"" + shown(line) + "\" is not of the form \"key = value\"";
    }
    const std::string_view key = trimmed(line.substr(0, equals));
    const std::string_view value = trimmed(line.substr(equals + 1));
    for (const setting& known : settings) {
        if (known.key == key) {
            return known.parse(value, config)
                       ? std::string()
                       : std::string(key) + " is \"" + shown(value) + "\"; expected " + known.allowed;
        }
    }
    return "\"" + shown(key) + "\" is not a known setting";
}

void read_lines(std::string_view text, platform_config& config, std::vector<std::string>& problems) {
    for (int number = 1; !text.empty(); ++number) {
        const size_t end = text.find('\n');
        const std::string_view line = trimmed(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.empty() || line.front() == '#') {
            continue;
        }
        const std::string problem = read_line(line, config);
        if (!problem.empty()) {
            problems.push_back(std::string(platform_config_file) + ", line " + std::to_string(number) + ": " + problem);
        }
    }
}

}  // namespace

platform_status platform_config_read(platform_config& config, std::vector<std::string>& problems) {
    config = {PROCESS_ROLE_PRIMARY, 0, false, 100};
    std::string text;
    const platform_status status = file_read(platform_config_file, file_size_max, text);
    if (status == ENOENT) {
        return ENOENT;
    }
    if (status != PLATFORM_OK) {
        problems.push_back(std::string(platform_config_file) + ": " + platform_status_text(status));
        return status;
    }
    read_lines(text, config, problems);
    return PLATFORM_OK;
}
