/// Host-key algorithms: which ones the server offers, and the key files that belong to them.
#ifndef APPLIERS_HOST_KEY_ALGORITHMS_H
#define APPLIERS_HOST_KEY_ALGORITHMS_H

#include "platform/datastore_backend.h"

/// Writes the selected algorithms and their files in order of preference; after a removal, the defaults. Returns 0, or
/// 1 if the state of FIPS mode cannot be read.
platform_status sshd_apply_hostkeyalgo(const datastore_change* change, const datastore_path_components* components);

#endif
