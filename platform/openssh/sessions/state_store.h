/// Stores session facts in files, so that they survive a restart of the responder.
#ifndef OPENSSH_SESSIONS_STATE_STORE_H
#define OPENSSH_SESSIONS_STATE_STORE_H

#include <string>

#include "openssh/sessions/session_table.h"

namespace openssh {

/// Loads all live sessions in `folder` into the table and removes all other files.
void load_sessions(session_table& table, const std::string& folder);

/// Replaces a session's file atomically. Returns false with errno set on failure; the old file is then unchanged.
bool store_session(const session_table& table, const session_facts& facts, const std::string& folder);

void remove_stored_session(pid_t pid, const std::string& folder);

}  // namespace openssh

#endif
