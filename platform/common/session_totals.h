/// The number of sessions, which the responder reports on a separate socket. Each client that connects gets one answer,
/// after the responder has looked for new sessions.
#ifndef PLATFORM_COMMON_SESSION_TOTALS_H
#define PLATFORM_COMMON_SESSION_TOTALS_H

#include <cstdint>

/// Sent as one message in native layout. Includes sessions whose facts are unknown.
struct session_totals {
    uint32_t incoming = 0;
    uint32_t outgoing = 0;
};

/// Of type SOCK_SEQPACKET; only root may connect.
inline constexpr char session_totals_socket[] = "/run/ssh_cfg_agent/session_totals.sock";

#endif
