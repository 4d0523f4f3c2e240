/// The service that answers queries about the sessions of the router's servers and clients.
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "openssh/paths.h"
#include "openssh/sessions/responder.h"

namespace {

constexpr const char* runtime_folder = "/run/ssh_cfg_agent";

/// Resolves a path to the form in which the kernel reports a process's executable.
std::string resolved(const std::string& path) {
    char* found = realpath(path.c_str(), nullptr);
    std::string result = found != nullptr ? found : path;
    std::free(found);
    return result;
}

/// Each session needs two descriptors, each connected client one.
void allow_many_descriptors() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int open_stop_signal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

/// Notifies the service manager, whose watchdog restarts a hung responder.
void notify(bool is_ready) {
    sd_notify(0, is_ready ? "READY=1\nWATCHDOG=1" : "WATCHDOG=1");
}

}  // namespace

int main() {
    constexpr mode_t for_all_to_pass = 0755;
    openssh::responder_options options;
    options.stop = open_stop_signal();
    options.report_alive = notify;
    if (options.stop < 0) {
        std::perror("session_responder: cannot wait for signals");
        return EXIT_FAILURE;
    }
    // The service manager creates the same folder for the agent, which may start later.
    mkdir(runtime_folder, for_all_to_pass);
    allow_many_descriptors();
    const openssh::launcher_paths paths;
    openssh::session_table table;
    table.server_program = resolved(paths.sshd);
    table.client_program = resolved(paths.ssh);
    table.client_name = paths.client_name;
    return openssh::run_responder(options, table) ? EXIT_SUCCESS : EXIT_FAILURE;
}
