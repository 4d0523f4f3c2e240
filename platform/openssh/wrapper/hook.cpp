/// Runs within sshd: puts the wrapper in the place of what sshd executes for a session.
///
/// sshd's own means, ForceCommand, would overrule the commands that users' keys and certificates are restricted to, would
/// have the wrapper started by the user's shell, which need not be one that can (restricted shells, shells for one purpose),
/// and would take the message of the day and the last login from the user.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "openssh/wrapper/session_command.h"

namespace {

int execute(const char* path, char* const* arguments, char* const* environment) {
    return static_cast<int>(syscall(SYS_execve, path, arguments, environment));
}

/// Returns only when the wrapper cannot be executed; everything is as before then. The wrapper gets an empty environment.
void hand_over(const char* path, char* const* arguments, char* const* environment) {
    const int fd = openssh::write_session_command(path, arguments, environment);
    if (fd < 0) {
        return;
    }
    if (fd == openssh::session_descriptor || dup2(fd, openssh::session_descriptor) >= 0) {
        // sshd has made a session, and with it a group, before; should it not, the group is made here.
        setpgid(0, 0);
        char* const wrapper_arguments[] = {const_cast<char*>(openssh::session_wrapper), nullptr};
        char* const wrapper_environment[] = {nullptr};
        execute(openssh::session_wrapper, wrapper_arguments, wrapper_environment);
        close(openssh::session_descriptor);
    }
    if (fd != openssh::session_descriptor) {
        close(fd);
    }
}

}  // namespace

/// In the place of libc's. sshd calls it for a session and for the programs that find users' keys.
extern "C" __attribute__((visibility("default"))) int execve(const char* path, char* const arguments[],
                                                             char* const environment[]) noexcept {
    if (openssh::is_session_command(path, arguments, environment)) {
        hand_over(path, arguments, environment);
    }
    return execute(path, arguments, environment);
}
