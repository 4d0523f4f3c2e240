/// The service that tracks the sessions of the router's servers and clients and answers queries about them.
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "openssh/paths.h"
#include "openssh/sessions/responder.h"

namespace {

constexpr int first_passed_descriptor = 3;

/// The socket passed by the service manager; -1 if there is none.
int passed_socket() {
    const char* pid = std::getenv("LISTEN_PID");
    const char* count = std::getenv("LISTEN_FDS");
    const bool is_ours = pid != nullptr && count != nullptr && std::atol(pid) == getpid() && std::atol(count) == 1;
    return is_ours ? first_passed_descriptor : -1;
}

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

}  // namespace

int main() {
    openssh::responder_options options;
    options.report_socket = passed_socket();
    options.stop = open_stop_signal();
    if (options.report_socket < 0 || options.stop < 0) {
        std::fputs("session_responder: must be started by its socket unit\n", stderr);
        return EXIT_FAILURE;
    }
    allow_many_descriptors();
    const openssh::launcher_paths paths;
    openssh::session_table table;
    table.server_program = resolved(paths.sshd);
    table.client_program = resolved(paths.ssh);
    table.client_name = paths.client_name;
    return openssh::run_responder(options, table) ? EXIT_SUCCESS : EXIT_FAILURE;
}
