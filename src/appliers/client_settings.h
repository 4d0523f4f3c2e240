/// Appliers of the client's single-valued settings; each turns its item's value into a line of the client's file.
#ifndef APPLIERS_CLIENT_SETTINGS_H
#define APPLIERS_CLIENT_SETTINGS_H

#include "platform/datastore_backend.h"

/// All return 0, whatever became of the file; its edit reports failures itself.
platform_status ssh_client_apply_v2(const datastore_change* change, const datastore_path_components* components);
platform_status ssh_client_apply_dscp(const datastore_change* change, const datastore_path_components* components);
platform_status ssh_client_apply_tcp_window_scale(const datastore_change* change,
                                                  const datastore_path_components* components);
platform_status ssh_client_apply_rekey_time(const datastore_change* change,
                                            const datastore_path_components* components);
platform_status ssh_client_apply_rekey_volume(const datastore_change* change,
                                              const datastore_path_components* components);

/// The file of the known hosts' keys, a text item. With one, unknown hosts are asked about; without one, the client neither
/// records nor checks host keys.
platform_status ssh_client_apply_known_hosts(const datastore_change* change,
                                             const datastore_path_components* components);

#endif
