#include "openssh/limits.h"

#include <fcntl.h>
#include <sched.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "aaa_pam/session_limit.h"
#include "common/file_descriptor.h"
#include "common/limits_table.h"
#include "common/text.h"
#include "openssh/run_programs.h"
#include "openssh/text.h"

namespace openssh {

namespace {

constexpr std::chrono::seconds nft_limit{10};
constexpr const char* create_command = "create table inet norvo_limits\n";
constexpr const char* delete_command = "delete table inet norvo_limits\n";

/// Runs nft. Returns its first complaint, or why it could not be run; an empty text on success.
std::string run_nft(const launcher_paths& paths, const std::string& commands) {
    const program_result result = run_programs({{paths.nft, commands}}, nft_limit).front();
    if (result.status == 0) {
        return {};
    }
    if (!result.failure.empty()) {
        return text_format("%s %s", paths.nft.c_str(), result.failure.c_str());
    }
    const auto lines = split(result.errors, "\r\n");
    return text_format("%s says: %s", paths.nft.c_str(), shown(lines.empty() ? "nothing" : lines.front()).c_str());
}

bool has_failed_with(const std::string& failure, int error) {
    return failure.find(std::strerror(error)) != std::string::npos;
}

/// Usually the end of the last server has removed the table. One that is still there is replaced in one step, which
/// takes three times as long, because nft then waits for a grace period of the kernel.
std::string limit_connections(const launcher_paths& paths, const server_limits& limits) {
    const std::string commands = limits_table_commands(limits.connections_per_minute, limited_ports(limits));
    std::string failure = run_nft(paths, create_command + commands);
    if (has_failed_with(failure, EEXIST)) {
        failure = run_nft(paths, delete_command + commands);
    }
    return failure;
}

}  // namespace

std::string limited_ports(const server_limits& limits) {
    return limits.ports.empty() ? std::string("22")
                                : joined(std::vector<std::string_view>(limits.ports.begin(), limits.ports.end()));
}

std::vector<std::string> enforce_limits(const launcher_paths& paths, const server_limits& limits) {
    std::vector<std::string> failures;
    const std::string failure = limit_connections(paths, limits);
    if (!failure.empty()) {
        failures.push_back(text_format("the limit of %u new connections per minute is not in force: %s",
                                       limits.connections_per_minute, failure.c_str()));
    }
    const int error = session_limit_set(paths.state_directory.c_str(), limits.sessions);
    if (error != 0) {
        failures.push_back(text_format("the limit of %u concurrent sessions is not in force: %s", limits.sessions,
                                       std::strerror(error)));
    }
    return failures;
}

std::string remove_limits(const launcher_paths& paths, const std::string& network_namespace) {
    const std::string path = paths.namespace_directory + network_namespace;
    const file_descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0 && errno == ENOENT) {
        return {};
    }
    if (fd.get() < 0 || setns(fd.get(), CLONE_NEWNET) != 0) {
        const int error = errno;
        return text_format("cannot enter %s: %s", shown(path).c_str(), std::strerror(error));
    }
    std::string failure = run_nft(paths, delete_command);
    return has_failed_with(failure, ENOENT) ? std::string() : failure;
}

}  // namespace openssh
