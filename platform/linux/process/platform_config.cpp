#include "linux/process/platform_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

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
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    // All ones stand for "unknown" in records.
    if (error != std::errc() || end != value.data() + value.size() || number == UINT32_MAX) {
        return false;
    }
    config.node_number = number;
    return true;
}

constexpr setting settings[] = {
    {"role", parse_role, "primary or standby"},
    {"node_number", parse_node_number, "a number from 0 to 4294967294"},
};

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// The text may be a binary file's, so only what can be shown is.
std::string shown(std::string_view text) {
    std::string result;
    for (const char c : text.substr(0, 64)) {
        result += c >= ' ' && c <= '~' ? c : '?';
    }
    return result;
}

/// Empty when the line is in order, else what is wrong with it.
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

/// Returns 0 or an errno value. Only a regular file is read, so that nothing can block here.
int read_file(int fd, std::string& text) {
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return EINVAL;
    }
    char buffer[4096];
    ssize_t length = 0;
    while ((length = read(fd, buffer, sizeof buffer)) != 0) {
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            return errno;
        }
        text.append(buffer, static_cast<size_t>(length));
        if (text.size() > file_size_max) {
            return EFBIG;
        }
    }
    return 0;
}

}  // namespace

platform_status platform_config_read(platform_config& config, std::vector<std::string>& problems) {
    config = {PROCESS_ROLE_PRIMARY, 0, false};
    const int fd = open(platform_config_file, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    std::string text;
    int error = fd < 0 ? errno : read_file(fd, text);
    if (fd >= 0) {
        close(fd);
    }
    if (error == ENOENT) {
        return ENOENT;
    }
    if (error != 0) {
        problems.push_back(std::string(platform_config_file) + ": " + strerror(error));
        return static_cast<platform_status>(error);
    }
    read_lines(text, config, problems);
    return PLATFORM_OK;
}
