/// Keeps the facts of the session that the calling process of sshd or ssh serves, and shares them through its page.
/// Logins do not depend on it: nothing here waits.
///
/// Part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_RECORDER_H
#define OPENSSH_REPORTER_RECORDER_H

#include "openssh/reporter/log_line.h"

namespace openssh {

/// Learns from a line that sshd has logged. The page is made when the user is let in, since connections without a login
/// must not take up memory. Returns an errno value once, if it cannot be made; otherwise 0. Preserves errno.
int record_server_line(const log_line& line) noexcept;

/// The same for a line of ssh, whose page is made with the first fact.
int record_client_line(const log_line& line) noexcept;

}  // namespace openssh

#endif
