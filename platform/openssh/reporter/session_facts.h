/// Everything known about one session, as plain data of a fixed size, because processes share it through memory.
/// Whatever does not fit is dropped: texts are truncated to their fields, and channels beyond the last slot are not
/// recorded.
///
/// Part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_SESSION_FACTS_H
#define OPENSSH_REPORTER_SESSION_FACTS_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "platform/session_query.h"

namespace openssh {

enum class session_kind : uint32_t { incoming, outgoing };

/// A session's state, as numbered in the answers.
enum session_state : uint32_t {
    session_negotiating = 0,     ///< keys are being exchanged
    session_authenticating = 1,  ///< the peer is not authenticated yet
    session_established = 2,
};

/// A channel's state; both count as open.
enum channel_state : uint32_t {
    channel_unused = 0,
    channel_opened = 1,   ///< nothing requested yet
    channel_running = 2,  ///< a shell, a command, a subsystem or a forwarded connection
};

/// What a channel is used for, as numbered in the answers.
enum connection_type : uint32_t {
    connection_none = 0,  ///< nothing requested yet
    connection_shell = 1,
    connection_command = 2,
    connection_subsystem = 3,
    connection_sftp = 4,
    connection_netconf = 5,
    connection_forwarding = 6,
};

constexpr size_t most_channels = SESSION_CHANNELS;
constexpr uint32_t no_terminal = UINT32_MAX;
constexpr uint32_t no_link = UINT32_MAX;

struct channel_facts {
    uint32_t state = channel_unused;
    uint32_t id = 0;
    uint32_t type = connection_none;
    /// The server's own number of the login session, distinct from the channel's.
    uint32_t login = no_link;
    uint32_t terminal = no_terminal;  ///< N of /dev/pts/N
};

/// Bytes transferred over the connection, as counted by the kernel.
struct byte_counters {
    uint64_t sent = 0;
    uint64_t received = 0;
    uint32_t known = 0;
};

/// Names of algorithms, as in the protocol.
struct algorithm_facts {
    char kex[100] = {};
    char host_key[100] = {};
    char in_cipher[100] = {};
    char out_cipher[100] = {};
    char in_mac[100] = {};
    char out_mac[100] = {};
};

struct rekey_facts {
    uint32_t count = 0;
    uint32_t seconds = 0;       ///< between two key exchanges; 0 if there is no time limit
    uint64_t bytes = 0;         ///< in one direction; 0 if no volume is set
    uint64_t blocks_limit = 0;  ///< the cipher's own limit, in blocks
    uint64_t keyed_at = 0;      ///< time of the last key exchange, in seconds since boot
    byte_counters at_keying;
};

/// How the user logged in to a server.
struct login_facts {
    uint64_t time = 0;  ///< of the authentication, in seconds since boot
    uint32_t port = 0;  ///< the peer's TCP port
    uint32_t reserved = 0;
    char vrf[64] = {};
    char key_type[32] = {};         ///< as sshd logs it ("ED25519"); empty unless the user logged in with a key
    char key_fingerprint[64] = {};  ///< "SHA256:..."
};

struct session_facts {
    uint64_t start_time = 0;  ///< of process `pid`, in clock ticks since boot
    int32_t pid = 0;          ///< the process that is queried for the session: sshd's monitor, or ssh
    session_kind kind = session_kind::incoming;
    uint32_t user_number = 0;  ///< the user who owns that process; set by the responder
    uint32_t session_id = 0;   ///< set by the responder
    uint32_t state = session_negotiating;
    int32_t session_pid = 0;  ///< the process that runs the session; 0 while there is none
    /// The process in which the session began, if it continues in another: in a child of ssh that went to the background.
    int32_t first_pid = 0;
    uint64_t first_start_time = 0;
    char user[64] = {};
    char host[256] = {};
    char method[32] = {};
    /// The method of the last attempt, which becomes the session's method when the user is authenticated.
    char attempt[32] = {};
    algorithm_facts algorithms;
    rekey_facts rekey;
    channel_facts channels[most_channels];
    login_facts login;  ///< not in pages of the first version
};

/// Of the facts in a page of the first version.
constexpr size_t first_session_facts_size = 1408;
static_assert(offsetof(session_facts, login) == first_session_facts_size);

static_assert(std::is_trivially_copyable_v<session_facts>);

/// Stores a text, truncated to the field and always terminated.
template <size_t size>
void set_field(char (&field)[size], std::string_view text) {
    const size_t length = text.size() < size ? text.size() : size - 1;
    for (size_t i = 0; i < size; ++i) {
        field[i] = i < length ? text[i] : '\0';
    }
}

}  // namespace openssh

#endif
