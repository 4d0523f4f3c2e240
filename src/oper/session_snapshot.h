/// The answer of one SSH process to a session query, in that process's native layout (little-endian).
#ifndef OPER_SESSION_SNAPSHOT_H
#define OPER_SESSION_SNAPSHOT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

/// A session id that means that the snapshot holds no session.
inline constexpr uint32_t no_session = UINT32_MAX;

/// Channel slots, of which slot 0 is not used.
inline constexpr size_t channel_slots = 17;

struct session_snapshot {
    uint32_t session_id;
    uint32_t session_state;
    uint32_t channel_id[channel_slots];
    char line[channel_slots][64];  ///< "vty N", or "XXXXX" for a channel without a line
    uint32_t rekey_count;
    uint32_t unused[5];
    uint32_t channel_state[channel_slots - 1];  ///< of slot k at k - 1
    char user_id[64];
    char remote_host[256];
    uint32_t protocol_version;
    char authentication_method[32];
    uint32_t connection_type[channel_slots];
    uint32_t node_id;
    char kex_algorithm[100];
    char host_key_algorithm[100];
    char in_cipher[100];
    char out_cipher[100];
    char in_mac[100];
    char out_mac[100];
    uint32_t data_to_rekey;  ///< bytes
    char time_to_rekey[28];  ///< decimal seconds
    uint32_t session_pid;
    uint32_t open_channels;
};

static_assert(offsetof(session_snapshot, line) == 76);
static_assert(offsetof(session_snapshot, rekey_count) == 1164);
static_assert(offsetof(session_snapshot, channel_state) == 1188);
static_assert(offsetof(session_snapshot, user_id) == 1252);
static_assert(offsetof(session_snapshot, remote_host) == 1316);
static_assert(offsetof(session_snapshot, protocol_version) == 1572);
static_assert(offsetof(session_snapshot, authentication_method) == 1576);
static_assert(offsetof(session_snapshot, connection_type) == 1608);
static_assert(offsetof(session_snapshot, node_id) == 1676);
static_assert(offsetof(session_snapshot, kex_algorithm) == 1680);
static_assert(offsetof(session_snapshot, data_to_rekey) == 2280);
static_assert(offsetof(session_snapshot, time_to_rekey) == 2284);
static_assert(offsetof(session_snapshot, session_pid) == 2312);
static_assert(offsetof(session_snapshot, open_channels) == 2316);
static_assert(sizeof(session_snapshot) == 2320);

/// A text field of a snapshot, which ends at its NUL or, when the peer forgot it, at the field's end.
template <size_t size>
std::string_view field_text(const char (&field)[size]) {
    return {field, strnlen(field, size)};
}

/// Whether a channel slot (1 to 16) is in use.
inline bool channel_in_use(const session_snapshot& snapshot, size_t slot) {
    const uint32_t state = snapshot.channel_state[slot - 1];
    return state == 1 || state == 2;
}

#endif
