/// Sends lines of sshd's or ssh's log to the responder. Never blocks for long, never fails loudly: a router's logins do not
/// depend on it. Nothing here allocates, throws or needs the C++ library.
#ifndef OPENSSH_REPORTER_SENDER_H
#define OPENSSH_REPORTER_SENDER_H

#include <string_view>

namespace openssh {

/// Sends one line; errno is left as it was.
void send_report(std::string_view written) noexcept;

}  // namespace openssh

#endif
