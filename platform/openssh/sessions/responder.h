/// Receives reports from sshd and ssh and answers session queries on one local socket per session.
#ifndef OPENSSH_SESSIONS_RESPONDER_H
#define OPENSSH_SESSIONS_RESPONDER_H

#include <string>

#include "openssh/sessions/session_table.h"

namespace openssh {

struct responder_options {
    /// Datagram socket for reports, bound by the service manager; the responder does not close it.
    int report_socket = -1;
    /// Becomes readable when the responder must end.
    int stop = -1;
    std::string socket_prefix = "/run/norvossh_oper";  ///< followed by the pid of the session's process
    std::string state_folder = "/run/ssh_cfg_agent/sessions";
};

/// Runs until `stop` is readable. On entry the table contains the programs and no sessions. On return the sockets are
/// removed, while the files of live sessions are kept. Returns false, after writing the reason to standard error, if it
/// could not start.
bool run_responder(const responder_options& options, session_table& table);

}  // namespace openssh

#endif
