/// The services of the Linux platform, which start around the event manager and stop with it.
#ifndef LINUX_START_H
#define LINUX_START_H

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <span>

#include "linux/process/service_moment.h"
#include "platform/event_manager.h"
#include "platform/status.h"

/// A service: when it starts, and how.
struct platform_service {
    const char* name;
    service_moment moment;
    uint32_t message;  ///< for service_moment::message_attached: the message that the service sends
    bool
        required;  ///< its failure makes creating the event manager fail; without other services the agent works with restrictions
    platform_status (*start)(struct event_manager* manager);
    void (*stop)();  ///< null for a service with nothing to clean up
};

inline constexpr size_t services_max = 32;  ///< in one table

/// A table of services, in the order in which they start, and which of them run.
struct service_set {
    std::span<const platform_service> services;
    std::bitset<services_max> running;  ///< by their positions in the table
};

/// The platform's own table. Lives as long as the process.
service_set& platform_services();

/// Starts the services whose moment has come (for a message: those that send `message`), in the order of the table.
/// Services that run are left alone. Returns PLATFORM_OK, or the status of the first required service that failed; those
/// after it are not started, those before it run.
platform_status service_set_start(service_set& set, service_moment moment, uint32_t message,
                                  struct event_manager* manager);

/// Stops all services that run, in the reverse order of the table.
void service_set_stop(service_set& set);

#endif
