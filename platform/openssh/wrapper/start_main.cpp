/// Executes what sshd wanted to run for a session, with unchanged arguments and environment.
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "openssh/wrapper/session_command.h"

int main() {
    openssh::session_command command;
    if (!openssh::read_session_command(openssh::session_descriptor, command)) {
        std::perror("cannot read the session's command");
        return 1;
    }
    close(openssh::session_descriptor);
    // The wrapper's shell ignores these signals in background commands.
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGQUIT, SIG_DFL);
    execve(command.path, command.arguments, command.environment);
    // Same wording as sshd.
    std::perror(command.path);
    return 1;
}
