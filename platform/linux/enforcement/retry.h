/// The timer on which what is not in force is repaired.
#ifndef LINUX_ENFORCEMENT_RETRY_H
#define LINUX_ENFORCEMENT_RETRY_H

#include <cstdint>

#include "platform/event_manager.h"
#include "platform/status.h"

/// Seconds before repair number `attempt`, from 0 on, since all was in force.
uint32_t enforcement_retry_delay(uint32_t attempt);

/// From now on what is not in force is repaired on the manager's loop. Does nothing when it is already so.
platform_status enforcement_retry_start(struct event_manager* manager);

/// Ends the repairs. Harmless when there are none.
void enforcement_retry_stop();

#endif
