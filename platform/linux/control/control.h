/// The control socket: what ssh_cfg_ctl talks to.
///
/// The socket listens before the agent starts up, so that early clients wait in the queue instead of being refused.
/// Nobody is answered until the loop is reached for the first time, when every item of the stored configuration has been
/// applied. Both steps are rows of the platform's start: control_open when the event manager is created (while the lock
/// that prevents a second agent is held, because an existing socket is replaced), control_start at the first
/// event_manager_block.
#ifndef LINUX_CONTROL_CONTROL_H
#define LINUX_CONTROL_CONTROL_H

#include <systemd/sd-event.h>

#include "platform/status.h"

/// Members of this group and root may use the socket.
inline constexpr char control_group[] = "sshcfg";
/// Those of them who are also in this group, and root, may change something with it.
inline constexpr char control_administrators[] = "sshcfg-admin";

/// Binds the socket at `path` (null: control_socket_path of control_protocol/frame.h) and listens, without answering yet.
/// An existing socket is replaced by rename; any other file is left alone (EEXIST). The mode is 0660 with the group, or
/// 0600 when the node has no such group, which is logged. EALREADY while a socket is open. Failures are logged; the agent
/// works without the socket.
platform_status control_open(const char* path);

/// Starts answering on the loop. Does nothing when no socket is open or when it is already answering.
platform_status control_start(sd_event* loop);

/// Answers on another loop while this node waits to become the primary one, until control_stop_standby. control_start
/// continues from there.
platform_status control_start_standby(sd_event* loop);
void control_stop_standby();

/// Drops all connections and removes the socket. Harmless when none is open.
void control_close();

#endif
