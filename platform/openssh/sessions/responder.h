/// Takes reports of sshd and ssh in and answers session queries, one local socket for each session.
#ifndef OPENSSH_SESSIONS_RESPONDER_H
#define OPENSSH_SESSIONS_RESPONDER_H

#include <string>

#include "openssh/sessions/session_table.h"

namespace openssh {

struct responder_options {
    /// A datagram socket for reports, bound by the service manager; the responder does not close it.
    int report_socket = -1;
    /// Becomes readable when the responder should end.
    int stop = -1;
    std::string socket_prefix = "/run/norvossh_oper";  ///< followed by the number of the session's process
    std::string state_folder = "/run/ssh_cfg_agent/sessions";
};

/// Works until `stop` is readable. The table holds the programs and is otherwise empty. Sockets are gone at the end, the files of
/// living sessions stay. False when it could not begin; the reason has been written to standard error.
bool run_responder(const responder_options& options, session_table& table);

}  // namespace openssh

#endif
