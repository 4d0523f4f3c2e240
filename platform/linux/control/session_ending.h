/// Ends sessions of the servers.
#ifndef PLATFORM_LINUX_CONTROL_SESSION_ENDING_H
#define PLATFORM_LINUX_CONTROL_SESSION_ENDING_H

#include <sys/types.h>

#include <cstdint>

/// How a session is ended.
enum class session_end_force : uint8_t {
    ask,         ///< SIGTERM to its programs and to sshd
    kill_child,  ///< SIGKILL to its programs and to sshd's unprivileged process; the monitor then closes the session
    kill_all     ///< SIGKILL to the monitor, too
};

/// Signals the session of this process of sshd, which is identified by its pid and its start time in clock ticks since
/// boot. Returns false if it does not exist any more.
bool session_end(pid_t pid, uint64_t start_time, session_end_force force);

#endif
