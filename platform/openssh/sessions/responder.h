/// Answers session queries on one local socket per session, from the pages of sshd and ssh.
#ifndef OPENSSH_SESSIONS_RESPONDER_H
#define OPENSSH_SESSIONS_RESPONDER_H

#include <string>

#include "common/session_list.h"
#include "common/session_totals.h"
#include "openssh/sessions/session_table.h"

namespace openssh {

struct responder_options {
    /// Becomes readable when the responder must end.
    int stop = -1;
    std::string socket_prefix = "/run/norvossh_oper";  ///< followed by the pid of the session's process
    std::string totals_socket = session_totals_socket;
    std::string list_socket = session_list_socket;
    /// Called when the responder is ready, and at least every `alive_milliseconds` while it runs.
    void (*report_alive)(bool is_ready) = [](bool) {};
};

constexpr int alive_milliseconds = 2000;

/// Runs until `stop` is readable. On entry the table contains the programs and no sessions. Finds a server's session
/// when its file appears, and a client's when someone asks for the number of sessions. Removes the files of ended
/// sessions. On return, the sockets have been removed, and the files of live sessions are still there. Returns false,
/// after writing the reason to standard error, if it could not start or its folder disappeared.
bool run_responder(const responder_options& options, session_table& table);

}  // namespace openssh

#endif
