/// Session queries: finds the running SSH processes and asks each for a snapshot of its session.
///
/// The agent keeps no session state: every read queries the processes. A query blocks for up to 100 ms in each
/// direction.
#ifndef OPER_SESSION_QUERY_H
#define OPER_SESSION_QUERY_H

#include <cstdint>

#include "oper/session_snapshot.h"

/// Queries the server (client) process `pid`. Returns 0 if `snapshot` holds an answer, or is marked empty because the
/// process did not answer; -1 on any failure. A server's answer has exactly 2320 bytes; a client's may be shorter.
int connectToSSHDaemon(session_snapshot* snapshot, int pid);
int connectToSSHClient(session_snapshot* snapshot, int pid);

/// Queries all server (client) processes. Stores their number and the snapshots in an array that the caller frees with
/// free(). They are sorted by session id, and all their texts are terminated. Returns 0, or the errno value if the
/// processes could not be listed; there are then no snapshots.
int ssh_oper_collect_server_sessions(uint32_t* count, session_snapshot** snapshots);
int ssh_oper_collect_client_sessions(uint32_t* count, session_snapshot** snapshots);

/// Compares session ids: -1, 0 or 1.
int ssh_oper_session_cmp(const void* one, const void* other);

#endif
