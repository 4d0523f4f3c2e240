/// Becomes what sshd wanted to execute for a session, with the very arguments and environment.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "openssh/wrapper/session_command.h"

int main() {
    openssh::session_command command;
    if (!openssh::read_session_command(openssh::session_descriptor, command)) {
        std::perror("the session's command cannot be read");
        return 1;
    }
    close(openssh::session_descriptor);
    // The wrapper's shell starts what it does not wait for at once with these ignored.
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGQUIT, SIG_DFL);
    execve(command.path, command.arguments, command.environment);
    // As sshd says it.
    std::perror(command.path);
    return 1;
}
