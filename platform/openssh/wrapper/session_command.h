/// What sshd executes for a session (the user's shell, alone or with a command), on its way from sshd to the session's own
/// process: sshd's hook recognises it and hands it on, the starter takes it up. Between the two stands the wrapper script,
/// which sees nothing of it, so that no word of a user's can mean anything to the script or show in its process title.
///
/// libc alone: the hook runs within sshd.
#ifndef OPENSSH_WRAPPER_SESSION_COMMAND_H
#define OPENSSH_WRAPPER_SESSION_COMMAND_H

namespace openssh {

/// Stands over each session as the leader of its process group.
constexpr const char* session_wrapper = "/pkg/bin/ssh_exec.sh";
/// Run by the wrapper in the session's place: takes the command up and becomes it.
constexpr const char* session_starter = "/usr/libexec/ssh_cfg_agent/session_start";
/// The library that sshd is run with.
constexpr const char* session_hook = "/pkg/lib/libssh_session.so";

/// The descriptor that the command is handed on with. sshd has closed all but the standard ones by then.
constexpr int session_descriptor = 3;

/// Whether an execution is that of a session's shell, and not one of the programs that sshd or a PAM module runs besides:
/// the shell goes by the last part of its path, a login shell with a hyphen before it and without arguments, another with
/// "-c" and the command; and the environment names the client.
bool is_session_command(const char* path, char* const* arguments, char* const* environment);

/// Writes the command to a file in memory. Gives its descriptor, which survives an execution; -1 with errno on failure.
int write_session_command(const char* path, char* const* arguments, char* const* environment);

/// What was written. The pointers are into one block and end with the process.
struct session_command {
    char* path;
    char** arguments;  ///< ends with a null pointer, like `environment`
    char** environment;
};

/// Reads what was written, from the file's start. False with errno on failure, `command` is then untouched; EBADMSG says that
/// the file is not whole.
bool read_session_command(int fd, session_command& command);

}  // namespace openssh

#endif
