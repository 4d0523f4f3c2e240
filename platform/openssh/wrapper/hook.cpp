/// Loaded into sshd: runs the wrapper instead of the program that sshd executes for a session, and confines sessions on the
/// NETCONF port to the NETCONF subsystem.
///
/// sshd's own ForceCommand would override the command restrictions of users' keys and certificates, would start the
/// wrapper through the user's shell, which may be a restricted one, and would suppress the message of the day and the
/// last login.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

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

/// A host that may only reach NETCONF must not get a shell, a command or files through its port.
[[noreturn]] void refuse_session() {
    constexpr char text[] = "This port serves the NETCONF subsystem only.\n";
    static_cast<void>(!write(STDERR_FILENO, text, sizeof text - 1));
    _exit(1);
}

}  // namespace

/// Replaces libc's getenv(). sshd asks for this variable when it is about to serve SFTP itself, without executing anything.
extern "C" __attribute__((visibility("default"))) char* getenv(const char* name) noexcept {
    if (environ == nullptr) {
        return nullptr;
    }
    if (strcmp(name, "SSH_CONNECTION") == 0 && openssh::is_on_netconf_port(environ)) {
        refuse_session();
    }
    const size_t length = strlen(name);
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (strncmp(*entry, name, length) == 0 && (*entry)[length] == '=') {
            return *entry + length + 1;
        }
    }
    return nullptr;
}

/// Replaces libc's execve(). sshd calls it for sessions and for the commands that look up users' keys.
extern "C" __attribute__((visibility("default"))) int execve(const char* path, char* const arguments[],
                                                             char* const environment[]) noexcept {
    if (openssh::is_session_command(path, arguments, environment)) {
        if (openssh::is_on_netconf_port(environment) && !openssh::is_netconf_command(arguments)) {
            refuse_session();
        }
        hand_over(path, arguments, environment);
    }
    return execute(path, arguments, environment);
}
