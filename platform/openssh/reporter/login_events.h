/// Sends an event to the journal and to the agent when a user logs in or out, or an attempt to log in has failed. Logins do
/// not depend on it: nothing here waits.
///
/// Part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_LOGIN_EVENTS_H
#define OPENSSH_REPORTER_LOGIN_EVENTS_H

#include <string_view>

#include "openssh/reporter/log_line.h"

namespace openssh {

/// What the log calls a server: "norvosshd-red". An empty text without the variable that names the VRF.
const char* server_log_name() noexcept;

/// Whether sshd has started the process for one connection, as the arguments in /proc/PID/cmdline say.
bool is_for_connection(std::string_view arguments) noexcept;

/// To be called when the process begins, if sshd has started it for a connection. Others send no events.
void begin_login_events() noexcept;

/// Follows a line with a place.
void follow_login_line(const log_line& line) noexcept;

/// Follows a line without one, which has been logged as it is.
void follow_ordinary_line(std::string_view written) noexcept;

/// The time limit for a login, in seconds; 0 ends it. Without a line in the log, sshd ends when it is over.
void note_time_limit(unsigned seconds) noexcept;

/// To be called when the process ends, even from the handler of a signal.
void end_login_events() noexcept;

}  // namespace openssh

#endif
