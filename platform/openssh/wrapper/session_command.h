/// Passes the program that sshd executes for a session (the user's shell, with or without a command) to the session's
/// process: the hook in sshd recognises it and passes it on, session_start receives it. The wrapper script in between
/// sees none of it, so that nothing a user sends can affect the script or appear in its process title.
///
/// Uses libc alone, because the hook runs inside sshd.
#ifndef OPENSSH_WRAPPER_SESSION_COMMAND_H
#define OPENSSH_WRAPPER_SESSION_COMMAND_H

namespace openssh {

/// Runs as the process group leader of each session.
constexpr const char* session_wrapper = "/pkg/bin/ssh_exec.sh";
/// Run by the wrapper: receives the command and executes it.
constexpr const char* session_starter = "/usr/libexec/ssh_cfg_agent/session_start";
/// The library that is preloaded into sshd.
constexpr const char* session_hook = "/pkg/lib/libssh_session.so";

/// The descriptor that passes the command on. By then sshd has closed all but the standard ones.
constexpr int session_descriptor = 3;

/// Whether an execve() call starts a session's shell, and not another program run by sshd or a PAM module: argv[0] is
/// the last component of the path, with a leading hyphen and without arguments for a login shell, otherwise followed by
/// "-c" and the command; and the environment contains SSH_CLIENT.
bool is_session_command(const char* path, char* const* arguments, char* const* environment);

/// Writes the command to an in-memory file. Returns its descriptor, which stays open across execve(); -1 with errno set
/// on failure.
int write_session_command(const char* path, char* const* arguments, char* const* environment);

/// A command that was read back. The pointers refer to one block that is never freed.
struct session_command {
    char* path;
    char** arguments;  ///< null-terminated, like `environment`
    char** environment;
};

/// Reads the command from the start of the file. Returns false with errno set on failure, leaving `command` unchanged;
/// EBADMSG means that the file is incomplete.
bool read_session_command(int fd, session_command& command);

}  // namespace openssh

#endif
