/// Passes the program that sshd executes for a session (the user's shell, with or without a command) to the session's
/// process: the hook in sshd recognises it and passes it on, the wrapper receives it in a
/// memory file, so that nothing a user sends appears in its process title.
///
/// Uses libc alone, because the hook runs inside sshd.
#ifndef OPENSSH_WRAPPER_SESSION_COMMAND_H
#define OPENSSH_WRAPPER_SESSION_COMMAND_H

namespace openssh {

/// Runs as the process group leader of each session, and executes the command in a child.
constexpr const char* session_wrapper = "/pkg/bin/ssh_exec.sh";
/// The library that is preloaded into sshd.
constexpr const char* session_hook = "/pkg/lib/libssh_session.so";

/// Sessions on this port run the NETCONF subsystem's command and nothing else.
constexpr const char* netconf_port = "830";
constexpr const char* netconf_program = "/pkg/bin/netconf_sshd_proxy";
constexpr const char* netconf_command = "/pkg/bin/netconf_sshd_proxy -i 0 -o 1";

/// The descriptor that passes the command on. By then sshd has closed all but the standard ones.
constexpr int session_descriptor = 3;

/// Whether an execve() call starts a session's shell, and not another program run by sshd or a PAM module: argv[0] is
/// the last component of the path, with a leading hyphen and without arguments for a login shell, otherwise followed by
/// "-c" and the command; and the environment contains SSH_CLIENT.
bool is_session_command(const char* path, char* const* arguments, char* const* environment);

/// Whether a session's environment, which sshd has made, is that of a connection to the NETCONF port.
bool is_on_netconf_port(char* const* environment);

/// Whether a session's command, for which is_session_command() is true, is that of the NETCONF subsystem.
bool is_netconf_command(char* const* arguments);

/// Writes the command to an in-memory file that nobody can change afterwards. Returns its descriptor, which stays open
/// across execve(); -1 with errno set on failure.
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
