/// Connections of the control socket: accepts them, reads their frames, has them answered, and limits their use of memory
/// and time. This module does not know what a call does.
///
/// A request with the member "progress": true is answered with frames of the form {"progress": {...}} before the answer.
///
/// Peers are served one call at a time. No peer, however slow or silent, and no number of peers prevents others from being
/// answered: nothing blocks, every phase has a time limit, and when all places are taken, the connection idle longest is
/// dropped. An answer with the member "watching", a topic (true for telemetry, or "sessions"), makes its peer a watcher: it
/// makes no more requests and receives events until either side hangs up. Watchers may be silent indefinitely without losing their places. In return their
/// number is small, and a watcher that does not read its events gets only the latest ones and is eventually dropped.
#ifndef LINUX_CONTROL_SERVER_H
#define LINUX_CONTROL_SERVER_H

#include <sys/types.h>
#include <systemd/sd-event.h>

#include <cstddef>
#include <string_view>

#include "linux/control/events.h"
#include "linux/control/server_state.h"
#include "platform/status.h"

/// Takes ownership of `listener`, a listening non-blocking socket, even on failure. The caller owns and frees the server.
/// Nothing is accepted yet. Throws std::bad_alloc.
control_server* control_server_create(int listener, const control_groups& groups, const control_limits& limits,
                                      const control_services& services);

/// Starts accepting. EALREADY when it is already accepting.
platform_status control_server_start(control_server* server, sd_event* loop);

/// Serves connections while the agent is at work in some handler: accepts new ones, and answers the requests that may be
/// answered meanwhile; others wait for the loop. Whoever has asked for it is told how far the agent is, from one second on.
/// Never waits, and takes at most half of the time between its calls.
void control_server_serve_meanwhile(control_server* server);

/// The number of connections that watch this topic.
size_t control_server_watchers(const control_server* server, control_topic topic = control_topic::telemetry);

/// Passes an event, one JSON document, to all watchers of the topic. Throws std::bad_alloc.
void control_server_publish(control_server* server, std::string_view subject, std::string_view document,
                            control_topic topic = control_topic::telemetry);

/// Drops all connections and accepts no more until it is started again, on whatever loop. New connections wait meanwhile.
void control_server_stop(control_server* server);

/// Drops all connections and closes the listener. Null is accepted.
void control_server_free(control_server* server);

#endif
