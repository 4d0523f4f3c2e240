/// The VRFs' servers as they run: what they were started with.
///
/// An addition for platforms on which somebody else may start servers and edit files. One that does not know leaves both
/// texts empty.
#ifndef PLATFORM_SERVER_PROCESS_H
#define PLATFORM_SERVER_PROCESS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { SERVER_PROCESS_TEXT = 512 };

struct server_process_report {
    /// Why the process is not the server that the VRF's unit starts, or no longer has what it was started with in force. It
    /// completes the sentence "The server ...". Empty if it is as it was started, or if it is only just being started.
    char difference[SERVER_PROCESS_TEXT];
    /// A copy of the agent's file as it was when the server was started. Empty if unknown, or if an earlier file is in use
    /// because sshd rejects the present one.
    char file[SERVER_PROCESS_TEXT];
};

/// Examines the process that runs as the server of the VRF (name without prefix). Leaves errno alone.
void server_process_examine(const char* vrf_name, int32_t process, struct server_process_report* report);

#ifdef __cplusplus
}
#endif

#endif
