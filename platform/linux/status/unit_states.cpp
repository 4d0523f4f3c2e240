#include "linux/status/unit_states.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "common/number.h"
#include "linux/process/child_output.h"

namespace {

constexpr std::string_view unit_prefix = "sshd_service_";
constexpr std::string_view unit_suffix = ".service";

std::string vrf_of_unit(std::string_view unit) {
    return unit.starts_with(unit_prefix) && unit.ends_with(unit_suffix) &&
                   unit.size() > unit_prefix.size() + unit_suffix.size()
               ? std::string(unit.substr(unit_prefix.size(), unit.size() - unit_prefix.size() - unit_suffix.size()))
               : std::string();
}

int become_systemctl(const std::vector<std::string>& words, int fd) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(null, STDIN_FILENO);
    dup2(fd, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    execvp(arguments[0], arguments.data());
    return EXIT_FAILURE;
}

/// The units' properties are separated by empty lines.
struct unit_reader {
    server_unit_states units;
    server_unit_state unit;
    std::string vrf_name;

    void take(std::string_view line) {
        const size_t equals = std::min(line.find('='), line.size());
        const std::string_view name = line.substr(0, equals);
        const std::string_view value = line.substr(std::min(equals + 1, line.size()));
        if (name == "Id") {
            vrf_name = vrf_of_unit(value);
        } else if (name == "LoadState") {
            unit.load = value;
        } else if (name == "ActiveState") {
            unit.active = value;
        } else if (name == "SubState") {
            unit.sub = value;
        } else if (name == "Result") {
            unit.result = value;
        } else if (name == "MainPID") {
            unit.main_process = number_parse<pid_t>(value, 0).value_or(0);
        }
    }

    void end_unit() {
        if (!vrf_name.empty()) {
            units[vrf_name] = unit;
        }
        vrf_name.clear();
        unit = {};
    }
};

}  // namespace

std::string server_unit_name(std::string_view vrf_name) {
    return std::string(unit_prefix).append(vrf_name).append(unit_suffix);
}

platform_status server_unit_states_query(const std::vector<std::string>& vrf_names, server_unit_states& units) {
    if (vrf_names.empty()) {
        return PLATFORM_OK;
    }
    std::vector<std::string> words = {"systemctl", "show", "--no-pager",
                                      "--property=Id,LoadState,ActiveState,SubState,Result,MainPID", "--"};
    std::transform(vrf_names.begin(), vrf_names.end(), std::back_inserter(words), server_unit_name);
    std::string text;
    const platform_status status =
        child_output([&words](int fd) { return become_systemctl(words, fd); }, child_output_limit, text);
    if (status == PLATFORM_OK) {
        units = server_unit_states_parse(text);
    }
    return status;
}

server_unit_states server_unit_states_parse(std::string_view text) {
    unit_reader reader;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        if (line.empty()) {
            reader.end_unit();
        } else {
            reader.take(line);
        }
    }
    reader.end_unit();
    return std::move(reader.units);
}

bool server_unit_runs(const server_unit_state& unit) {
    return unit.active == "active" || unit.active == "reloading";
}
