#include "ssh_cfg_ctl/command_line.h"

#include <optional>
#include <string_view>

#include "common/number.h"
#include "ssh_cfg_ctl/calls.h"

namespace {

constexpr unsigned timeout_max = 86400;

void refuse(ctl_command_line& line, const std::string& error) {
    line.action = ctl_action::wrong;
    line.error = error;
}

void set_timeout(ctl_command_line& line, const std::string& text) {
    const std::optional<unsigned> seconds = number_parse<unsigned>(text, 1, timeout_max);
    if (!seconds) {
        refuse(line, "--timeout: expected 1 to 86400 seconds, not '" + text + "'");
        return;
    }
    line.timeout = *seconds;
}

struct flag_row {
    const char* name;
    void (*set)(ctl_command_line& line);
};

constexpr flag_row flags[] = {
    {"--json", [](ctl_command_line& line) { line.json = true; }},
    {"--names", [](ctl_command_line& line) { line.names = true; }},
    {"--yes", [](ctl_command_line& line) { line.yes = true; }},
    {"--progress", [](ctl_command_line& line) { line.progress = true; }},
    {"--help", [](ctl_command_line& line) { line.action = ctl_action::help; }},
    {"-h", [](ctl_command_line& line) { line.action = ctl_action::help; }},
    {"--version", [](ctl_command_line& line) { line.action = ctl_action::version; }},
};

struct value_row {
    const char* name;
    void (*set)(ctl_command_line& line, const std::string& value);
};

constexpr value_row values[] = {
    {"--socket", [](ctl_command_line& line, const std::string& value) { line.socket_path = value; }},
    {"--timeout", set_timeout},
};

bool take_flag(ctl_command_line& line, const std::string& argument) {
    for (const flag_row& row : flags) {
        if (argument == row.name) {
            row.set(line);
            return true;
        }
    }
    return false;
}

/// Reads an option with its value, "--name value" or "--name=value". Returns the number of arguments consumed, 0 for
/// none.
size_t take_value(ctl_command_line& line, const std::string& argument, const std::string* next) {
    for (const value_row& row : values) {
        const std::string_view name = row.name;
        if (argument.starts_with(name) && argument.size() > name.size() && argument[name.size()] == '=') {
            row.set(line, argument.substr(name.size() + 1));
            return 1;
        }
        if (argument == name && next != nullptr) {
            row.set(line, *next);
            return 2;
        }
        if (argument == name) {
            refuse(line, "'" + argument + "' requires a value");
            return 1;
        }
    }
    return 0;
}

/// Whether the call has an option of the same name, which its usage line then shows.
bool is_option_of_call(const ctl_command_line& line, const std::string& argument) {
    const ctl_call_row* call = line.call.empty() ? nullptr : ctl_find_call(line.call[0]);
    const std::string_view name = std::string_view(argument).substr(0, argument.find('='));
    return call != nullptr && name.starts_with("--") &&
           std::string_view(call->arguments).find(name) != std::string::npos;
}

/// Reads an option. Returns the number of arguments consumed, 0 if it is none.
size_t take_option(ctl_command_line& line, const std::string& argument, const std::string* next) {
    if (!argument.starts_with('-') || is_option_of_call(line, argument)) {
        return 0;
    }
    return take_flag(line, argument) ? 1 : take_value(line, argument, next);
}

}  // namespace

ctl_command_line ctl_parse_command_line(const std::vector<std::string>& arguments) {
    ctl_command_line line;
    if (arguments.empty()) {
        line.action = ctl_action::help;
    }
    for (size_t index = 0; index < arguments.size() && line.action != ctl_action::wrong;) {
        const std::string& argument = arguments[index];
        if (argument == "--") {
            line.call.insert(line.call.end(), arguments.begin() + static_cast<ptrdiff_t>(index) + 1, arguments.end());
            break;
        }
        const std::string* next = index + 1 < arguments.size() ? &arguments[index + 1] : nullptr;
        const size_t taken = take_option(line, argument, next);
        if (taken == 0 && line.call.empty() && argument.starts_with('-')) {
            refuse(line, "unknown option '" + argument + "'");
        } else if (taken == 0) {
            line.call.push_back(argument);
        }
        index += taken == 0 ? 1 : taken;
    }
    if (line.action == ctl_action::call && line.call.empty()) {
        refuse(line, "no call given");
    }
    return line;
}
