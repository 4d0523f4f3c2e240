/// The router's SSH client: translates the agent's file into one that stock ssh accepts, and becomes ssh under its own
/// name.
#include <pwd.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/text.h"
#include "openssh/client_launch.h"
#include "openssh/preload.h"
#include "openssh/text.h"

namespace {

[[noreturn]] void become(const std::string& program, const std::vector<std::string>& command,
                         const openssh::reporter& to) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    execv(program.c_str(), arguments.data());
    const int error = errno;
    openssh::report(to, openssh::severity::error,
                    text_format("cannot execute %s: %s", program.c_str(), std::strerror(error)));
    std::exit(openssh::client_failed);
}

openssh::client_user this_user() {
    const char* runtime_directory = std::getenv("XDG_RUNTIME_DIR");
    const passwd* entry = getpwuid(geteuid());
    return {geteuid(), runtime_directory == nullptr ? "" : runtime_directory, entry == nullptr ? "" : entry->pw_dir};
}

}  // namespace

int main(int count, char** arguments) {
    const openssh::launcher_paths paths;
    openlog("ssh_csm", LOG_PID, LOG_AUTH);
    openssh::client_reporters to;
    to.terminal.server_file = to.log.server_file = paths.client_file;
    to.terminal.program = to.log.program = "ssh_csm";
    to.log.way = openssh::report_way::system_log;
    const std::string state_directory = openssh::client_state_directory(paths, this_user());
    std::string config;
    std::string error = state_directory.empty()
                            ? text_format("cannot create a folder for the client's file: %s", std::strerror(errno))
                            : openssh::prepare_client(paths, state_directory, to, config);
    if (error.empty()) {
        error = openssh::check_fips_arguments(paths, config, count, arguments);
    }
    if (!error.empty()) {
        openssh::report(to.log, openssh::severity::error, error);
        openssh::report(to.terminal, openssh::severity::error, error);
        return openssh::client_failed;
    }
    openssh::load_into_ssh(openssh::session_reporter_of(paths), openssh::log_file_of(count, arguments));
    become(paths.ssh, openssh::client_command(paths, config, count, arguments), to.terminal);
}
