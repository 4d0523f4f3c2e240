/// Builds the list of sessions and sends it to a client of the responder.
#ifndef OPENSSH_SESSIONS_SESSION_LIST_H
#define OPENSSH_SESSIONS_SESSION_LIST_H

#include <vector>

#include "common/session_list.h"
#include "openssh/sessions/session_table.h"

namespace openssh {

/// Returns the servers' sessions in the table, in the order of their processes, then the connections on which nobody has
/// logged in. `boot_time` is
/// the time of the boot by the present wall clock, in milliseconds since 1970.
std::vector<session_list_row> list_sessions(session_table& table, int64_t boot_time);

/// Returns the time of the boot by the present wall clock, in milliseconds since 1970.
int64_t boot_time_now();

/// Sends the rows to a client, without waiting for it. Returns 0 or an errno value.
int send_session_list(int client, const std::vector<session_list_row>& rows);

}  // namespace openssh

#endif
