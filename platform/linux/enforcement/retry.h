/// The timer that repairs what is not in force.
#ifndef LINUX_ENFORCEMENT_RETRY_H
#define LINUX_ENFORCEMENT_RETRY_H

#include <cstdint>

#include "platform/event_manager.h"
#include "platform/status.h"

/// Seconds before repair number `attempt`, counted from 0 since everything was in force.
uint32_t enforcement_retry_delay(uint32_t attempt);

/// Starts repairing what is not in force on the manager's loop. Does nothing if already started.
platform_status enforcement_retry_start(struct event_manager* manager);

/// Stops the repairs. Does nothing if they were not started.
void enforcement_retry_stop();

#endif
