/// Runs in place of the SSH server: translates the agent's file into one that stock sshd accepts, and becomes sshd.
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/files.h"
#include "common/journal_entry.h"
#include "common/text.h"
#include "openssh/comparison.h"
#include "openssh/launch.h"
#include "openssh/limits.h"
#include "openssh/preload.h"
#include "openssh/sftp_server.h"
#include "openssh/text.h"

namespace {

[[noreturn]] void become(const std::vector<std::string>& command, const openssh::reporter& to) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    const int error = errno;
    openssh::report(to, openssh::severity::error,
                    text_format("cannot execute %s: %s", arguments[0], std::strerror(error)));
    std::exit(openssh::launch_exec_failed);
}

int compare(const openssh::launcher_paths& paths, const openssh::reporter& to) {
    std::string lines;
    const std::string failure = openssh::compare_running_servers(paths, lines);
    if (!failure.empty()) {
        openssh::report(to, openssh::severity::error, "the running servers cannot be compared: " + failure);
    }
    std::fputs(lines.c_str(), stdout);
    return failure.empty() ? openssh::launch_ready : openssh::launch_not_compared;
}

}  // namespace

int main(int count, char** arguments) {
    const openssh::launcher_paths paths;
    openssh::reporter to;
    std::string cgroup;
    if (file_read("/proc/self/cgroup", 65536, cgroup) == PLATFORM_OK) {
        to.service = service_of_cgroup(cgroup);
    }
    to.way =
        openssh::choose_report_way(STDERR_FILENO, std::getenv("JOURNAL_STREAM"), access(paths.system_log, W_OK) == 0);
    openssh::launch_options options;
    const std::string error = openssh::parse_options(count, arguments, options);
    to.server_file = !options.ended_namespace.empty() ? options.ended_namespace
                     : options.file.empty()           ? "-"
                                                      : options.file;
    if (const std::string vrf = openssh::vrf_of(options.file); !vrf.empty()) {
        to.log_name += '-' + vrf;
    }
    openlog(to.log_name.c_str(), LOG_PID, LOG_AUTH);
    if (!error.empty()) {
        openssh::report(to, openssh::severity::error, error);
        std::fputs(openssh::usage_text, stderr);
        return openssh::launch_usage;
    }

    if (!options.ended_namespace.empty()) {
        const std::string failure = openssh::remove_limits(paths, options.ended_namespace);
        if (!failure.empty()) {
            openssh::report(to, openssh::severity::error, "the limit of new connections is still there: " + failure);
        }
        return failure.empty() ? openssh::launch_ready : openssh::launch_limits_left;
    }
    if (options.compare) {
        return compare(paths, to);
    }
    if (!options.judged_local.empty()) {
        std::string judgement;
        const openssh::launch_status status = openssh::judge_local(paths, options, to, judgement);
        std::fputs(judgement.c_str(), stdout);
        return status;
    }
    if (options.print_only) {
        std::string translated;
        const openssh::launch_status status = openssh::try_translation(paths, options, to, translated);
        std::fputs(translated.c_str(), stdout);
        return status;
    }
    openssh::launch prepared;
    const openssh::launch_status status = openssh::prepare_launch(paths, options, to, prepared);
    if (status == openssh::launch_ready) {
        prepared.record.not_in_force = openssh::enforce_limits(paths, prepared.limits);
        prepared.record.connections_per_minute = prepared.limits.connections_per_minute;
        prepared.record.ports = openssh::limited_ports(prepared.limits);
    }
    for (const std::string& failure : prepared.record.not_in_force) {
        openssh::report(to, openssh::severity::error, failure);
    }
    openssh::keep_record(paths, prepared.record, to);
    if (status != openssh::launch_ready) {
        return status;
    }
    openssh::report(to, openssh::severity::notice,
                    text_format("the server of VRF %u starts with %s", options.vrf_id, prepared.config.c_str()));
    const std::string sftp_failure = openssh::renew_sftp_server(paths);
    if (!sftp_failure.empty()) {
        openssh::report(to, openssh::severity::warning, "the SFTP server is missing or outdated: " + sftp_failure);
    }
    openssh::load_into_sshd(openssh::session_hook_of(paths, to));
    openssh::load_into_sshd(openssh::session_reporter_of(paths));
    openssh::name_vrf(options.file);
    become(openssh::server_command(paths, prepared.config), to);
}
