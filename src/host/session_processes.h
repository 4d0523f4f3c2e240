/// Which processes are sessions of the SSH servers.
#ifndef HOST_SESSION_PROCESSES_H
#define HOST_SESSION_PROCESSES_H

#include <cstdint>

/// Whether sshd itself started the process for a session: its parent is a session process of a server, whatever name or
/// title the process has. False also for a process that does not exist.
bool is_session_process(int32_t pid);

#endif
