/// Everything that the agent does and reports, as a text for golden files.
#ifndef UNIT_ACCOUNT_H
#define UNIT_ACCOUNT_H

#include <string>
#include <vector>

#include "fake/fake_platform.h"
#include "stub_commands.h"

/// What the agent has asked of the platform, run and reported since the last call, one line each.
inline std::string account() {
    std::string text;
    const auto add = [&text](const char* kind, const std::vector<std::string>& lines) {
        for (const std::string& line : lines) {
            text += std::string(kind) + ' ' + line + '\n';
        }
    };
    add("call", fake_platform::calls());
    add("command", stub_commands::log());
    add("log", fake_platform::log_texts());
    for (const fake_platform::debug_line& line : fake_platform::debug_lines()) {
        text += "debug " + std::to_string(line.flag) + ' ' + line.text + '\n';
    }
    for (const fake_platform::trace_line& line : fake_platform::trace_lines()) {
        text += "trace " + line.buffer + ' ' + (line.point != nullptr ? line.point->name : "?");
        for (const std::string& argument : line.arguments) {
            text += ", " + argument;
        }
        text += '\n';
    }
    fake_platform::clear_calls();
    fake_platform::clear_reports();
    stub_commands::clear_log();
    return text;
}

#endif
