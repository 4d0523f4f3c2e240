/// Session queries: finds the running SSH processes and asks each for a snapshot of its session.
///
/// The agent keeps no session state; every read asks afresh. A query blocks for at most 100 ms each way.
#ifndef OPER_SESSION_QUERY_H
#define OPER_SESSION_QUERY_H

#include <cstdint>

#include "oper/session_snapshot.h"

/// Asks the server process (client process) `pid`. Returns 0 when `snapshot` holds an answer, or the mark of an empty one
/// when the process kept silent; -1 on any failure. A server's answer has exactly 2320 bytes; a client's may be short.
int connectToSSHDaemon(session_snapshot* snapshot, int pid);
int connectToSSHClient(session_snapshot* snapshot, int pid);

/// Asks all server (client) processes. Stores the snapshots, sorted by session id and every text of them ended, in an
/// array that the caller frees with free(), and their number. Returns 0, or the errno value with which finding the
/// processes failed: no snapshots then.
int ssh_oper_collect_server_sessions(uint32_t* count, session_snapshot** snapshots);
int ssh_oper_collect_client_sessions(uint32_t* count, session_snapshot** snapshots);

/// Orders by session id: -1, 0 or 1.
int ssh_oper_session_cmp(const void* one, const void* other);

#endif
