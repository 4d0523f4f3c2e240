/// The list of the servers' sessions, and of the connections on which nobody has logged in yet. The responder hands it out
/// on a separate socket: each client that connects gets one message, the head, with the descriptor of a sealed memory file
/// that consists of the rows.
#ifndef PLATFORM_COMMON_SESSION_LIST_H
#define PLATFORM_COMMON_SESSION_LIST_H

#include <cstdint>

enum session_list_state : uint32_t {
    session_list_connecting = 0,      ///< no user name has been received yet
    session_list_authenticating = 1,  ///< the user is not authenticated yet
    session_list_established = 2,
    session_list_unrecorded = 3,  ///< established, but its facts are unknown
};

constexpr uint32_t session_list_terminals = 16;
constexpr int64_t session_list_no_idle_time = -1;

/// In native layout. Texts are NUL-terminated and printable; unknown texts are empty, unknown numbers 0.
struct session_list_row {
    uint64_t start_time;  ///< of process `pid`, in clock ticks since boot; together they identify the process
    int64_t since;        ///< of the login, or of the connection before that; in seconds since 1970
    int64_t idle;         ///< seconds since the last input on a terminal, or session_list_no_idle_time
    int32_t pid;          ///< sshd's process for the connection, which runs as root
    uint32_t session_id;  ///< 0 for a connection that is not a recorded session
    uint32_t state;       ///< session_list_state
    uint32_t port;        ///< the peer's
    uint32_t terminal_count;
    uint32_t terminals[session_list_terminals];  ///< N of /dev/pts/N
    uint32_t reserved;
    char vrf[64];
    char user[64];  ///< claimed, until the session is established
    char host[256];
    char method[32];
    char key_type[32];
    char key_fingerprint[64];
    char kex[100];
    char host_key[100];
    char in_cipher[100];
    char out_cipher[100];
    char in_mac[100];
    char out_mac[100];
};

struct session_list_head {
    uint32_t magic;     ///< session_list_magic
    uint32_t row_size;  ///< of a responder that may be older or newer than its client
    uint32_t count;
};

/// Must be changed with the layout of the rows.
inline constexpr uint32_t session_list_magic = 0x3173736c;  // "lss1"

/// Of type SOCK_SEQPACKET; only root may connect.
inline constexpr char session_list_socket[] = "/run/ssh_cfg_agent/session_list.sock";

#endif
