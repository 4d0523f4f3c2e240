/// Finds sessions that are not in the table yet, and files that belong to no session.
#ifndef OPENSSH_SESSIONS_DISCOVERY_H
#define OPENSSH_SESSIONS_DISCOVERY_H

#include <string>
#include <vector>

#include "common/session_totals.h"
#include "openssh/sessions/session_table.h"

namespace openssh {

/// Adds the session of a server's file to the table, or removes the file if it is invalid. Returns the pid of a new
/// session, or 0.
pid_t find_server(session_table& table, const std::string& name);

/// The same for all files in the folder, in the order in which their processes started.
std::vector<pid_t> find_servers(session_table& table);

/// Adds clients with sessions to the table, and counts all sessions, including those that are authenticated or
/// connected but not in the table. Returns the pids of the new sessions.
std::vector<pid_t> find_clients(session_table& table, session_totals& totals);

/// A process of sshd that serves a connection without a session in the table.
struct unlisted_server {
    pid_t pid = 0;
    process_info process;
    std::string user;          ///< as far as sshd's title shows it
    bool has_user = false;     ///< the peer has sent a user name
    bool is_at_login = false;  ///< nobody is authenticated yet
};

/// In the order in which they started.
std::vector<unlisted_server> find_unlisted_servers(const session_table& table);

/// Returns the pids of outgoing sessions that no longer belong to their process.
std::vector<pid_t> find_left_pages(const session_table& table);

}  // namespace openssh

#endif
