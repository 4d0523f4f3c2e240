/// Appliers of the key-exchange and cipher lists and of the legacy ciphers, for the server and for the client.
#ifndef APPLIERS_ALGORITHM_LISTS_H
#define APPLIERS_ALGORITHM_LISTS_H

#include "platform/datastore_backend.h"

// Each returns 0, or 1 when FIPS mode cannot be asked for. What a write of a file meets is reported there.

/// Write the configured key exchanges but for group1, which is dropped with a log message; after a removal the default.
platform_status sshd_apply_kexalgo(const datastore_change* change, const datastore_path_components* components);
platform_status ssh_client_apply_kexalgo(const datastore_change* change, const datastore_path_components* components);

/// Write the configured ciphers but for 3DES, which is dropped with a log message, and the enabled legacy ciphers; after a
/// removal the default takes the place of the configured ones.
platform_status sshd_apply_cipheralgo(const datastore_change* change, const datastore_path_components* components);
platform_status ssh_client_apply_cipheralgo(const datastore_change* change,
                                            const datastore_path_components* components);

/// Enable the legacy AES ciphers beside the list, or take them out again. 1 also when memory is exhausted and, in FIPS
/// mode, when the list cannot be filtered or written.
platform_status sshd_apply_cipher(const datastore_change* change, const datastore_path_components* components);
platform_status ssh_client_apply_cipher(const datastore_change* change, const datastore_path_components* components);

#endif
