/// Handles and facts that start-up creates and that last as long as the process.
#ifndef CORE_AGENT_STATE_H
#define CORE_AGENT_STATE_H

#include <cstdint>

#include "platform/datastore.h"
#include "platform/event_manager.h"
#include "platform/shelf_manager.h"

struct agent_state {
    struct event_manager* event_manager;
    uint32_t process_role;   ///< PROCESS_ROLE_PRIMARY: no need to wait to become primary
    uint32_t respawn_count;  ///< 0 and 1: fresh start; 2 and above: restart after a failure
    int pam_inotify = -1;    ///< inotify instance that watches the PAM directory; -1 until it exists
    struct datastore_binding* server_binding;
    struct datastore_binding* client_binding;
    struct datastore_binding* backup_binding;
    struct datastore_binding* banner_binding;
    struct datastore_binding* aaa_banner_binding;
    struct shelf_manager* shelf_manager;
    uint32_t initial_scan_complete;  ///< 1 once both configuration scans have succeeded
};

extern agent_state agent_handles;

/// From this respawn count on, running servers keep their files and VRFs are announced again.
inline constexpr uint32_t respawn_after_failure = 2;

/// Whether the datastore's client library is readable. Tested once; the answer is cached.
bool datastore_client_available();

/// Binds like datastore_bind. Returns DATASTORE_UNAVAILABLE if the client library is missing.
platform_status bind_datastore(const char* path, datastore_binding** binding);

#endif
