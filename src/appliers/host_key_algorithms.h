/// Host-key algorithms: which the server offers, and the key files that belong to them.
#ifndef APPLIERS_HOST_KEY_ALGORITHMS_H
#define APPLIERS_HOST_KEY_ALGORITHMS_H

#include <cstddef>

#include "platform/datastore_backend.h"

/// Places of the flags in the item's value.
enum host_key_flag : size_t {
    HOST_KEY_NISTP256,
    HOST_KEY_NISTP384,
    HOST_KEY_NISTP521,
    HOST_KEY_ALL_RSA,
    HOST_KEY_DSS,
    HOST_KEY_X509V3_RSA,
    HOST_KEY_ED25519,
    HOST_KEY_RSA_SHA2_512,
    HOST_KEY_RSA_SHA2_256,
    HOST_KEY_SSH_RSA,
};

/// Writes the selected algorithms and their files in an order of its own; after a removal the defaults. Returns 0, or 1 when
/// FIPS mode cannot be asked for.
platform_status sshd_apply_hostkeyalgo(const datastore_change* change, const datastore_path_components* components);

#endif
