#include "platform/server_process.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <exception>
#include <string>

#include "common/launch_record.h"
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

void examine(const char* vrf_name, int32_t process, server_process_report& report) {
    launch_record record;
    const platform_status status = launch_record_read(vrf_name, record);
    if (is_being_started(process)) {
        return;
    }
    if (status != PLATFORM_OK || record.process != process) {
        snprintf(report.difference, sizeof report.difference, "was not started by its unit's own command");
        return;
    }
    if (!record.config_stamp.empty() && launch_file_stamp(record.config) != record.config_stamp) {
        snprintf(report.difference, sizeof report.difference, "runs with %s, which was changed after it was started",
                 record.config.c_str());
    }
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
