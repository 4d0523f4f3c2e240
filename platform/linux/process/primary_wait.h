/// The wait of a standby node until it becomes the primary one.
#ifndef LINUX_PROCESS_PRIMARY_WAIT_H
#define LINUX_PROCESS_PRIMARY_WAIT_H

#include <systemd/sd-event.h>

#include "platform/status.h"

/// What runs on the wait's own loop while this node is a standby.
struct standby_service {
    platform_status (*start)(sd_event* loop);
    void (*stop)();
};

/// Runs the service during waits that begin from now on. One with null functions is none.
void primary_wait_serve(const standby_service& service);

/// Waits until the configuration file makes this node the primary one. Returns 0 or an errno value. May throw
/// std::bad_alloc before the wait has begun.
int primary_wait();

#endif
