/// Where the event manager lets the platform's other services start and stop.
///
/// The services themselves are listed in linux/start.cpp, which defines these functions.
#ifndef LINUX_PROCESS_SERVICE_MOMENT_H
#define LINUX_PROCESS_SERVICE_MOMENT_H

#include <cstdint>

#include "platform/event_manager.h"
#include "platform/status.h"

enum class service_moment : uint8_t {
    manager_created,   ///< the loop exists; nothing has been attached to it
    first_wait,        ///< the agent has started up: every item of the stored configuration has been applied
    message_attached,  ///< someone listens to a message
};

/// Starts the services whose moment has come. `message` is the code of the message that was attached, otherwise 0.
/// Returns the status of a service that is required, which is then the event manager's own failure.
platform_status start_platform_services(struct event_manager* manager, service_moment moment, uint32_t message);

/// Stops them all, the last one first.
void stop_platform_services();

#endif
