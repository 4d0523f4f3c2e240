/// How many sessions there are, which the responder tells on a socket of its own: whoever connects gets one answer, after
/// the responder has looked for sessions that it did not know of.
#ifndef PLATFORM_COMMON_SESSION_TOTALS_H
#define PLATFORM_COMMON_SESSION_TOTALS_H

#include <cstdint>

/// In native layout, as one datagram. Counts sessions whether or not their facts are known.
struct session_totals {
    uint32_t incoming = 0;
    uint32_t outgoing = 0;
};

/// Of type SOCK_SEQPACKET; only root may connect.
inline constexpr char session_totals_socket[] = "/run/ssh_cfg_agent/session_totals.sock";

#endif
