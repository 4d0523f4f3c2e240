/// Connections of the control socket: accepts them, reads their frames, has them answered, and bounds what they may cost
/// in memory and time. Nothing here knows what a call does.
///
/// Peers are served one call at a time. No peer, however slow, silent or numerous, keeps another from being answered:
/// nothing blocks, every state has its time, and when all places are taken the one that has waited longest is dropped.
///
/// An answer with the member "watching": true makes its peer a watcher: it asks nothing more and is sent events until one
/// of both hangs up. Watchers may be silent for ever and keep their places; in return they are few, and one that does not
/// take its events gets the latest only and is dropped in the end.
#ifndef LINUX_CONTROL_SERVER_H
#define LINUX_CONTROL_SERVER_H

#include <sys/types.h>
#include <systemd/sd-event.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "control_protocol/json_text.h"
#include "linux/control/peer.h"
#include "platform/status.h"

/// Times are in microseconds, sizes in bytes.
struct control_limits {
    uint64_t idle_time = 60'000'000;   ///< from the connection, or from the last answer, to the next frame's first byte
    uint64_t frame_time = 5'000'000;   ///< from a frame's first byte to its last
    uint64_t answer_time = 5'000'000;  ///< without a byte of the answer taken
    uint64_t watch_time = 60'000'000;  ///< without a byte of an event taken
    size_t connections = 64;
    size_t watchers = 16;                      ///< of the connections
    size_t small_frame = 64UL * 1024;          ///< frames up to this size need no place among the large ones
    size_t large_frames = 32UL * 1024 * 1024;  ///< all larger frames together that are on their way in
    size_t answers = 32UL * 1024 * 1024;       ///< all answers together that are on their way out
    size_t watch_queue = 256UL * 1024;         ///< events that wait for one watcher; what is more is coalesced
    size_t watch_frame = 64UL * 1024;          ///< events that go out together
};

/// Answers one request, which is an object with a text "call". Called on the loop, one at a time.
using control_call_function = control_json (*)(const control_json& request, const control_peer& peer);

struct control_server;

/// Takes over `listener`, a listening non-blocking socket, in every case. The server is the caller's, who frees it.
/// Nothing is accepted yet. Throws std::bad_alloc.
control_server* control_server_create(int listener, std::optional<gid_t> group, const control_limits& limits,
                                      control_call_function call);

/// Begins to accept. EALREADY when it does.
platform_status control_server_start(control_server* server, sd_event* loop);

/// How many connections there are.
size_t control_server_connections(const control_server* server);

/// How many of them watch.
size_t control_server_watchers(const control_server* server);

/// Passes an event, one JSON document that tells the whole state of its subject, to all watchers. Throws std::bad_alloc.
void control_server_publish(control_server* server, std::string_view subject, std::string_view document);

/// Drops all connections and closes the listener. Null is accepted.
void control_server_free(control_server* server);

#endif
