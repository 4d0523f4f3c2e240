/// Sends log lines of sshd or ssh to the responder. Logins do not depend on it: it never blocks for long, and failures
/// are silent. Nothing here allocates, throws or needs the C++ library.
#ifndef OPENSSH_REPORTER_SENDER_H
#define OPENSSH_REPORTER_SENDER_H

#include <string_view>

namespace openssh {

/// Sends one line; preserves errno.
void send_report(std::string_view written) noexcept;

}  // namespace openssh

#endif
