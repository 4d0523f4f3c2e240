/// The names under which sessions are found among the processes.
#ifndef OPENSSH_REPORTER_TITLE_H
#define OPENSSH_REPORTER_TITLE_H

#include "openssh/reporter/log_line.h"

namespace openssh {

/// An ordinary user's session has a monitor process, which sshd marks in its title with "[priv]". A session of root needs
/// none: one process does all, and has the privileges. It gets the same mark when its user is let in.
void follow_login(const log_line& line) noexcept;

/// ssh that goes on by itself for the sake of a shared connection gives itself a new title. With this it begins with the
/// router's name for the client, as the command line did.
void keep_client_name() noexcept;

}  // namespace openssh

#endif
