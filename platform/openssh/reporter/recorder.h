/// Keeps the facts of the session that the calling process of sshd or ssh serves, and shares them through its page.
/// Logins do not depend on it: nothing here waits.
///
/// Part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_RECORDER_H
#define OPENSSH_REPORTER_RECORDER_H

#include "openssh/reporter/log_line.h"

namespace openssh {

/// The environment variable in which sshd's launcher names the server's VRF.
constexpr const char* vrf_variable = "SSH_CFG_VRF";

/// Learns from a line that sshd has logged. The pages are created when the user is authenticated, because connections
/// without a login must not take up memory. Returns an errno value once if they cannot be created, otherwise 0.
/// Preserves errno.
int record_server_line(const log_line& line) noexcept;

/// Removes the session's file if the calling process is its monitor, which is about to end. The responder removes the
/// files that killed processes leave behind; without this, those of all sessions would fill the file system while it is
/// down.
void end_server_record() noexcept;

/// The same as record_server_line() for a line of ssh, whose page is created when the first fact is known.
int record_client_line(const log_line& line) noexcept;

}  // namespace openssh

#endif
