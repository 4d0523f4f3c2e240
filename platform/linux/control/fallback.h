/// Restores the previous configuration if a commit is not confirmed in time.
#ifndef LINUX_CONTROL_FALLBACK_H
#define LINUX_CONTROL_FALLBACK_H

#include "platform/event_manager.h"
#include "platform/status.h"

/// Resumes waiting for a confirmation that was already awaited before the agent was restarted, and limits the history as
/// configured. Must be called after the stored configuration has been applied.
platform_status fallback_start(struct event_manager* manager);

/// Stops waiting for a confirmation. The next start resumes waiting.
void fallback_stop();

#endif
