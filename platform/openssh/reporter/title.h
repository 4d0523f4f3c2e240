/// The process titles by which sessions are found.
#ifndef OPENSSH_REPORTER_TITLE_H
#define OPENSSH_REPORTER_TITLE_H

#include "openssh/reporter/log_line.h"

namespace openssh {

/// An ordinary user's session has a monitor process, which sshd marks with "[priv]" in its title. A session of root has
/// a single, privileged process; it gets the same mark once the user is authenticated.
void follow_login(const log_line& line) noexcept;

/// ssh sets a new title when it stays in the background for a shared connection. This makes the title start with the
/// router's name for the client, like the original command line.
void keep_client_name() noexcept;

}  // namespace openssh

#endif
