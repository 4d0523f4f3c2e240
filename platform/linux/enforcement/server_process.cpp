#include "platform/server_process.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "common/file_descriptor.h"
#include "common/files.h"
#include "common/launch_record.h"
#include "linux/enforcement/server_settings.h"
#include "linux/reporting/log_message_internal.h"

namespace {

/// What runs before the server: the unit's command, then the launcher, which becomes sshd.
constexpr const char* programs_before[] = {"/sbin/ip", "/pkg/bin/sshd"};

bool is_same_program(const char* path, const std::string& program) {
    char resolved[PATH_MAX];
    return realpath(path, resolved) != nullptr && program == resolved;
}

/// Whether the process has not become the server yet, or is gone.
bool is_being_started(int32_t process) {
    char target[PATH_MAX];
    const ssize_t length = readlink(("/proc/" + std::to_string(process) + "/exe").c_str(), target, sizeof target);
    if (length <= 0) {
        return true;
    }
    const std::string program(target, static_cast<size_t>(length));
    for (const char* each : programs_before) {
        if (is_same_program(each, program)) {
            return true;
        }
    }
    return false;
}

/// The options of a server's command line, taken from its process title:
/// "norvosshd: /pkg/libexec/norvosshd -D -f FILE [listener] 0 of 10-100 startups".
std::string options_of(int32_t process) {
    constexpr std::string_view end_of_options = " [listener]";
    constexpr size_t longest = 16384;
    std::string line;
    const file_descriptor file(open(("/proc/" + std::to_string(process) + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC));
    if (file_read_to_end(file.get(), longest, line) != PLATFORM_OK) {
        return {};
    }
    std::replace(line.begin(), line.end(), '\0', ' ');
    line.erase(std::min(line.size(), line.rfind(end_of_options)));
    line.erase(line.find_last_not_of(' ') + 1);
    // Skips the program and, in a process title, also the name before the program.
    size_t begin = line.find(' ');
    if (begin != std::string::npos && begin > 0 && line[begin - 1] == ':') {
        begin = line.find(' ', begin + 1);
    }
    return begin == std::string::npos ? std::string() : line.substr(begin + 1);
}

/// Why the process is not the server that the launcher has recorded; empty if it is.
std::string difference_of(const char* vrf_name, int32_t process, const launch_record& record) {
    const std::string options = options_of(process);
    if (!options.empty() && options != "-D -f " + record.config) {
        return "runs with other options than its unit's: " + options;
    }
    if (!record.config_stamp.empty() && launch_file_stamp(record.config) != record.config_stamp) {
        return "runs with " + record.config + ", which was changed after it was started";
    }
    const std::string settings = server_settings_difference(vrf_name);
    return settings.empty() ? "" : "was started with other settings than it would be now: " + settings;
}

void examine(const char* vrf_name, int32_t process, server_process_report& report) {
    launch_record record;
    const platform_status status = launch_record_read(vrf_name, record);
    if (is_being_started(process)) {
        return;
    }
    if (status != PLATFORM_OK || record.process != process || record.in_use == launch_file::none) {
        snprintf(report.difference, sizeof report.difference, "was not started by its unit's own command");
        return;
    }
    snprintf(report.difference, sizeof report.difference, "%s", difference_of(vrf_name, process, record).c_str());
    const std::string source = launch_source_path(record.config);
    if (record.in_use == launch_file::current && access(source.c_str(), R_OK) == 0) {
        snprintf(report.file, sizeof report.file, "%s", source.c_str());
    }
}

}  // namespace

void server_process_examine(const char* vrf_name, int32_t process, struct server_process_report* report) {
    const errno_keeper keeper;
    *report = {};
    try {
        examine(vrf_name, process, *report);
    } catch (const std::exception&) {
        *report = {};
    }
}
