/// Rehearses a commit before it is stored: what it would do to this machine, and whether the servers would start with it.
///
/// A forked copy of the agent carries the commit out, with the commit's values as its datastore and with private copies of
/// all files that the agent writes. Commands that act on the machine are recorded instead of run, the packet filter is left
/// alone, nothing is logged. Afterwards the launcher and sshd judge the server files that have changed.
///
/// All functions must be called on the event loop's thread.
#ifndef LINUX_REHEARSAL_REHEARSAL_H
#define LINUX_REHEARSAL_REHEARSAL_H

#include "platform/status.h"

struct event_manager;

/// From now on commits are rehearsed.
platform_status rehearsals_start(struct event_manager* manager);
void rehearsals_stop();

#endif
