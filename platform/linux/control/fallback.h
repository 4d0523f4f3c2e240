/// The return to the previous configuration when a commit is not confirmed in time.
#ifndef LINUX_CONTROL_FALLBACK_H
#define LINUX_CONTROL_FALLBACK_H

#include "platform/event_manager.h"
#include "platform/status.h"

/// Resumes the wait for a confirmation that an earlier run of the agent began, and limits the history as configured. To be
/// called when the stored configuration has been applied.
platform_status fallback_start(struct event_manager* manager);

/// Ends the wait; it is resumed at the next start.
void fallback_stop();

#endif
