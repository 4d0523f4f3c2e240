/// Finds the sessions that the table does not contain yet, and the files that belong to none.
#ifndef OPENSSH_SESSIONS_DISCOVERY_H
#define OPENSSH_SESSIONS_DISCOVERY_H

#include <string>
#include <vector>

#include "common/session_totals.h"
#include "openssh/sessions/session_table.h"

namespace openssh {

/// Takes a server's file into the table, or removes it if it is invalid. Returns the pid of a new session, or 0.
pid_t find_server(session_table& table, const std::string& name);

/// The same for all files in the folder, in the order in which their processes began.
std::vector<pid_t> find_servers(session_table& table);

/// Takes the clients that have sessions into the table, and counts all sessions: also those of processes that belong to
/// none of the table's, but are let in or connected. Returns the pids of the new sessions.
std::vector<pid_t> find_clients(session_table& table, session_totals& totals);

/// The outgoing sessions that are no longer those of their process.
std::vector<pid_t> find_left_pages(const session_table& table);

}  // namespace openssh

#endif
