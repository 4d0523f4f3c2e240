/// Which lists of algorithms may be configured. Server and client share the verifiers.
#ifndef APPLIERS_ALGORITHM_VERIFIERS_H
#define APPLIERS_ALGORITHM_VERIFIERS_H

#include "platform/datastore_backend.h"

/// Refuse a list with an unknown or a duplicate name, a list with an algorithm that FIPS mode forbids while it is on,
/// and a list that names only an unsupported algorithm; also if the state of FIPS mode cannot be read. A removal is
/// always accepted.
platform_status kex_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                             const datastore_path_components* components);
platform_status cipher_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                const datastore_path_components* components);

/// Refuses host-key algorithms that FIPS mode forbids while it is on.
platform_status host_key_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                  const datastore_path_components* components);

#endif
