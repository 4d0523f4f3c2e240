/// The chassis side of the shelf manager: reloads that operators announce through the control socket.
///
/// Clients are connected while the control socket answers, since nothing can be announced without it.
#ifndef LINUX_HOST_SHELF_MANAGER_INTERNAL_H
#define LINUX_HOST_SHELF_MANAGER_INTERNAL_H

#include <cstdint>

#include "platform/shelf_manager.h"

/// What has become of the last notice.
enum class shelf_reload_phase : uint8_t {
    none,          ///< there has been no notice
    waiting,       ///< it has been sent, the acknowledgement is still to come
    acknowledged,  ///< the reload may go ahead
    unanswered     ///< its time is over
};

struct shelf_reload {
    shelf_reload_phase phase = shelf_reload_phase::none;
    uint32_t number = 0;   ///< counts the notices
    uint32_t timeout = 0;  ///< seconds that the acknowledgement may take
    uint32_t passed = 0;   ///< seconds since the notice
};

/// Connects the clients, or tells them that the connection is lost. A client that wanted to connect, or was connected, is
/// connected again by itself, and so is its wish for notices.
void shelf_manager_link(bool is_up);

/// Sends the notice to all clients that asked for it and waits for as long as they take to handle it. Their
/// acknowledgement may also come later, within `timeout` seconds. ENOENT when nobody has asked for notices, EALREADY
/// while an earlier notice waits for its acknowledgement and somebody still follows it.
platform_status shelf_manager_announce_reload(uint32_t timeout);

/// Says that the one who announced the last reload is still there; to be repeated every second.
void shelf_manager_follow_reload();

/// How it stands with the last notice. One whose time is over is from then on unanswered.
shelf_reload shelf_manager_reload_state();

/// For tests: forgets all clients and notices.
void shelf_manager_reset();

#endif
