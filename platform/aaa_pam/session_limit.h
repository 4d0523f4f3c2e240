/// The number of sessions of a VRF's server and its limit.
///
/// Each VRF has a file that is named after the number of its network namespace. Its text is the limit; each open session
/// holds a lock on one byte far behind the text. The kernel releases the lock when the last process of the session ends, however it
/// ends. So sessions are counted across restarts of their server, and a crash leaves none behind.
///
/// Neither allocates nor throws, as the code is loaded into sshd. The functions return 0 or an errno value.
#ifndef AAA_PAM_SESSION_LIMIT_H
#define AAA_PAM_SESSION_LIMIT_H

#include <cstdint>

/// Only root may enter it, so that nobody else can hold a lock.
inline constexpr char session_limit_directory[] = "/run/ssh_cfg_agent/openssh";

inline constexpr uint32_t session_limit_max = 1000;

struct session_count {
    uint32_t open = 0;
    uint32_t limit = 0;  ///< 0: no limit

    bool is_full() const { return limit != 0 && open >= limit; }
};

/// Sets the limit, from 1 to `session_limit_max`, for the calling process's network namespace. Open sessions stay.
int session_limit_set(const char* directory, uint32_t limit);

/// Counts the sessions in the calling process's network namespace. Without a limit they are not counted.
int session_limit_count(const char* directory, session_count* count);

/// Counts a new session, unless the limit is reached or there is none. `*lock` is then the descriptor that represents the
/// session, which the caller owns and which child processes inherit until they execute a program; otherwise -1. `*count`
/// includes the new session.
int session_limit_enter(const char* directory, session_count* count, int* lock);

#endif
