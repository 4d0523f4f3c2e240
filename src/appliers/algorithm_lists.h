/// Appliers of the key-exchange and cipher lists and of the legacy ciphers, for server and client.
#ifndef APPLIERS_ALGORITHM_LISTS_H
#define APPLIERS_ALGORITHM_LISTS_H

#include "platform/datastore_backend.h"

// Each returns 0, or 1 if the state of FIPS mode cannot be read. Writing a file reports its own failures.

/// Write the configured key exchanges except group1, which is dropped with a log message; after a removal, the default.
platform_status sshd_apply_kexalgo(const datastore_change* change, const datastore_path_components* components);
platform_status ssh_client_apply_kexalgo(const datastore_change* change, const datastore_path_components* components);

/// Write the configured ciphers except 3DES, which is dropped with a log message, and the enabled legacy ciphers. After
/// a removal, the default replaces the configured ones.
platform_status sshd_apply_cipheralgo(const datastore_change* change, const datastore_path_components* components);
platform_status ssh_client_apply_cipheralgo(const datastore_change* change,
                                            const datastore_path_components* components);

/// Add the enabled legacy AES ciphers to the list, or remove them again. Also return 1 if memory is exhausted and, in
/// FIPS mode, if the list cannot be filtered or written.
platform_status sshd_apply_cipher(const datastore_change* change, const datastore_path_components* components);
platform_status ssh_client_apply_cipher(const datastore_change* change, const datastore_path_components* components);

#endif
