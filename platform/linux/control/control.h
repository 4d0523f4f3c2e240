/// The control socket: what ssh_cfg_ctl talks to.
///
/// The socket is bound and listens before the agent starts up, so that an operator who is early waits in the queue
/// instead of being turned away; nobody is answered until the loop is reached for the first time, when every item of the
/// stored configuration has been applied. Both steps are rows of the platform's start: control_open when the event manager is
/// created (with the lock that keeps a second agent off held, because a socket that is found there is replaced),
/// control_start at the first event_manager_block.
#ifndef LINUX_CONTROL_CONTROL_H
#define LINUX_CONTROL_CONTROL_H

#include <systemd/sd-event.h>

#include "platform/status.h"

/// Members of this group, and root, may use the socket.
inline constexpr char control_group[] = "sshcfg";

/// Binds the socket at `path` (null: control_socket_path of control_protocol/frame.h) and listens, with nobody answered
/// yet. A socket that stands there is replaced by rename; anything else there is left alone (EEXIST). Mode 0660 with the
/// group, or 0600 when the node has no such group, which is logged. EALREADY while one is open. A failure has been
/// logged; the agent works without the socket.
platform_status control_open(const char* path);

/// Begins to answer on the loop. Does nothing when no socket is open or when it answers already.
platform_status control_start(sd_event* loop);

/// Drops all connections and removes the socket. Harmless when none is open.
void control_close();

#endif
