/// One connection of the control socket, internal to control_server.
#ifndef LINUX_CONTROL_CONNECTION_H
#define LINUX_CONTROL_CONNECTION_H

#include <systemd/sd-event.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "control_protocol/frame.h"
#include "control_protocol/json_text.h"
#include "linux/control/event_queue.h"
#include "linux/control/events.h"
#include "linux/control/peer.h"
#include "linux/control/server_state.h"

/// Control connections are served after the platform's own events. Time limits come first, because a busy loop would never
/// reach them otherwise; then root's connections, so that root does not wait behind others. All other connections take turns
/// with the acceptance of new ones: neither busy peers nor a flood of new ones can keep anybody out.
enum control_priority {
    CONTROL_PRIORITY_LIMIT = 9,
    CONTROL_PRIORITY_ROOT = 10,
    CONTROL_PRIORITY_CONNECTION = 11,
    CONTROL_PRIORITY_LISTENER = 11
};

/// A watcher is in phase `answering` while events are being sent to it, and in phase `waiting` in between. In phase
/// `deferred` a request has been received that cannot be answered before the agent is back in the loop.
enum class control_phase : uint8_t { idle, receiving, deferred, answering, waiting };

struct control_connection {
    control_server* server;
    int fd;
    control_peer peer;
    control_phase phase;
    bool last_answer;        ///< the connection ends once its answer is sent
    control_topic watching;  ///< receives events from now on
    uint64_t since;          ///< when the connection was made, or its current frame or answer began
    uint64_t deadline;       ///< when the current phase times out
    sd_event_source* io;
    sd_event_source* limit;
    control_frame_reader frame;
    size_t promised;       ///< this frame's share of server->large_frames
    control_json request;  ///< deferred
    bool in_call;          ///< its request is being carried out
    bool wants_progress;   ///< of its request
    uint64_t told;         ///< when progress was last sent
    std::string answer;
    size_t sent;
    control_event_queue events;
};

inline bool control_is_watching(const control_connection& connection) {
    return connection.watching != control_topic::none;
}

/// Microseconds of the monotonic clock, read now; the loop's own time is that of its last wake-up.
uint64_t control_now();

/// The number of the server's connections that watch.
size_t control_connection_watchers(const control_server& server);

/// Adds a connection for `fd`, of which it takes ownership even on failure. Throws std::bad_alloc.
platform_status control_connection_add(control_server* server, int fd, const control_peer& peer);

/// Passes an event to a watcher, which is dropped when too many events are queued for it. Throws std::bad_alloc.
void control_connection_notify(control_connection& connection, const std::shared_ptr<const control_event>& event);

/// Receives or sends what can be received or sent while the agent is at work. The connection may be dropped.
void control_connection_serve_meanwhile(control_connection& connection);

/// Tells a peer that waits for the answer to its request how far the agent is, if it wants to know and has waited long
/// enough. Throws std::bad_alloc.
void control_connection_tell_progress(control_connection& connection, const control_json& progress);

/// Ends the connection and frees it.
void control_connection_drop(control_connection* connection);

#endif
