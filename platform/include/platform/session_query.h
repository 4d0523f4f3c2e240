/// The protocol between the agent and each SSH process on the socket named after the process: one request and one
/// answer, one datagram each, in native layout (little-endian).
#ifndef PLATFORM_SESSION_QUERY_H
#define PLATFORM_SESSION_QUERY_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    SESSION_CHANNELS = 16,                        ///< at most
    SESSION_CHANNEL_SLOTS = SESSION_CHANNELS + 1  ///< slot 0 is not used
};

/// Means that the data left until the next rekey cannot be counted.
static const uint32_t SESSION_DATA_UNKNOWN = 0xffffffffU;

/// Identical for every query. The process answers with the whole snapshot and ignores the third word.
struct session_request {
    uint32_t zero;
    uint32_t one;
    uint32_t ignored;
};

/// One session. Texts are NUL-terminated within their field; unknown texts are empty.
struct session_snapshot {
    uint32_t session_id;
    uint32_t session_state;
    uint32_t channel_id[SESSION_CHANNEL_SLOTS];
    char line[SESSION_CHANNEL_SLOTS][64];  ///< "vty N", or "XXXXX" for a channel without a line
    uint32_t rekey_count;
    uint32_t unused[5];
    uint32_t channel_state[SESSION_CHANNELS];  ///< of slot k at k - 1; 1 and 2 mean in use
    char user_id[64];
    char remote_host[256];
    uint32_t protocol_version;
    char authentication_method[32];
    uint32_t connection_type[SESSION_CHANNEL_SLOTS];
    uint32_t node_id;
    char kex_algorithm[100];
    char host_key_algorithm[100];
    char in_cipher[100];
    char out_cipher[100];
    char in_mac[100];
    char out_mac[100];
    uint32_t data_to_rekey;  ///< bytes, or SESSION_DATA_UNKNOWN
    char time_to_rekey[28];  ///< decimal seconds
    uint32_t session_pid;
    uint32_t open_channels;
};

#ifdef __cplusplus
}

static_assert(sizeof(session_request) == 12);
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
#endif

#endif
