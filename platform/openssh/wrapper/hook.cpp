/// Loaded into sshd: runs the wrapper instead of the program that sshd executes for a session.
///
/// sshd's own ForceCommand would override the command restrictions of users' keys and certificates, would start the
/// wrapper through the user's shell, which may be a restricted one, and would suppress the message of the day and the
/// last login.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>


#include "openssh/wrapper/session_command.h"

namespace {

int execute(const char* path, char* const* arguments, char* const* environment) {
    return static_cast<int>(syscall(SYS_execve, path, arguments, environment));
}

/// Returns only if the wrapper cannot be executed, with everything unchanged. The wrapper gets an empty environment.
void hand_over(const char* path, char* const* arguments, char* const* environment) {
    const int fd = openssh::write_session_command(path, arguments, environment);
    if (fd < 0) {
        return;
    }
    if (fd == openssh::session_descriptor || dup2(fd, openssh::session_descriptor) >= 0) {
        // Normally sshd has already created a session and thus a process group; otherwise the group is created here.
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

/// Replaces libc's execve(). sshd calls it for sessions and for the commands that look up users' keys.
extern "C" __attribute__((visibility("default"))) int execve(const char* path, char* const arguments[],
                                                             char* const environment[]) noexcept {
    if (openssh::is_session_command(path, arguments, environment)) {
        hand_over(path, arguments, environment);
    }
    return execute(path, arguments, environment);
}
