/// The client's known hosts: one item with two keywords.
#ifndef APPLIERS_CLIENT_SETTINGS_H
#define APPLIERS_CLIENT_SETTINGS_H

#include "platform/datastore_backend.h"

/// The file of known host keys, a text item. If it is set, the client asks about unknown hosts; if not, it neither
/// records nor checks host keys. Returns 0; editing the file reports its own failures.
platform_status ssh_client_apply_known_hosts(const datastore_change* change,
                                             const datastore_path_components* components);

#endif
