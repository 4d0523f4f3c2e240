/// Keeps what is known of the sessions in files, so that a responder that is started again knows it still.
#ifndef OPENSSH_SESSIONS_STATE_STORE_H
#define OPENSSH_SESSIONS_STATE_STORE_H

#include <string>

#include "openssh/sessions/session_table.h"

namespace openssh {

/// Reads every session in `folder` that is still alive into the table and removes the files of the others, and whatever else
/// is no session's file.
void load_sessions(session_table& table, const std::string& folder);

/// Writes a session's file in one step. False with errno on failure; then the old file is still there.
bool store_session(const session_table& table, const session_facts& facts, const std::string& folder);

void remove_stored_session(pid_t pid, const std::string& folder);

}  // namespace openssh

#endif
