/// What lists of algorithms may be configured. Server and client share the verifiers of their lists.
#ifndef APPLIERS_ALGORITHM_VERIFIERS_H
#define APPLIERS_ALGORITHM_VERIFIERS_H

#include "platform/datastore_backend.h"

/// Refuse a list with an unknown or a repeated name, with an algorithm that FIPS mode forbids while it is on, and a list of
/// nothing but an algorithm that is not carried out; also when FIPS mode cannot be asked for. A removal is always accepted.
platform_status kex_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                             const datastore_path_components* components);
platform_status cipher_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                const datastore_path_components* components);

/// Refuses host-key algorithms that FIPS mode forbids while it is on.
platform_status host_key_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                  const datastore_path_components* components);

#endif
