/// The chassis side of the shelf manager: reloads that operators announce through the control socket.
///
/// Clients are connected while the control socket answers, since nothing can be announced without it.
#ifndef LINUX_HOST_SHELF_MANAGER_INTERNAL_H
#define LINUX_HOST_SHELF_MANAGER_INTERNAL_H

#include <cstdint>

#include "platform/shelf_manager.h"

/// The state of the last notification.
enum class shelf_reload_phase : uint8_t {
    none,          ///< nothing has been sent
    waiting,       ///< sent, the acknowledgement is pending
    acknowledged,  ///< the reload may go ahead
    unanswered     ///< its time is up
};

struct shelf_reload {
    shelf_reload_phase phase = shelf_reload_phase::none;
    uint32_t number = 0;   ///< number of notifications so far
    uint32_t timeout = 0;  ///< seconds allowed for the acknowledgement
    uint32_t passed = 0;   ///< seconds since the notification
};

/// Connects the clients, or notifies them that the connection is lost. A client that wanted to connect, or was
/// connected, is reconnected automatically, with its request for notifications.
void shelf_manager_link(bool is_up);

/// Sends the notification to all clients that requested it and waits until they have handled it. Their acknowledgement
/// may also arrive later, within `timeout` seconds. ENOENT if no client has requested notifications, EALREADY while an
/// earlier notification awaits its acknowledgement and its sender still follows it.
platform_status shelf_manager_announce_reload(uint32_t timeout);

/// Reports that the sender of the last reload is still there; to be repeated every second.
void shelf_manager_follow_reload();

/// The state of the last notification, which becomes unanswered once its time is up.
shelf_reload shelf_manager_reload_state();

/// For tests: clears all clients and notifications.
void shelf_manager_reset();

#endif
