/// The client's known hosts: one item with two keywords.
#ifndef APPLIERS_CLIENT_SETTINGS_H
#define APPLIERS_CLIENT_SETTINGS_H

#include "platform/datastore_backend.h"

/// The file of the known hosts' keys, a text item. With one, unknown hosts are asked about; without one, the client neither
/// records nor checks host keys. Returns 0, whatever became of the file; its edit reports failures itself.
platform_status ssh_client_apply_known_hosts(const datastore_change* change,
                                             const datastore_path_components* components);

#endif
