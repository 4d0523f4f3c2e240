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
#include <optional>
#include <string_view>

#include "linux/control/server_state.h"
#include "platform/status.h"

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
