/// The condition for switching FIPS mode on: every list must keep at least one algorithm.
#ifndef FIPS_FIPS_VERIFIER_H
#define FIPS_FIPS_VERIFIER_H

#include "platform/datastore.h"

/// Refuses the creation of the switch if FIPS mode would leave nothing of a list of the server or the client; accepts
/// every other event.
platform_status verify_fips_mode(const datastore_backend_call* call, void* context);

/// The switch takes effect by its notification, after the other changes of the commit are in the files. Returns 0.
platform_status apply_fips_mode(const datastore_backend_call* call, void* context);

#endif
