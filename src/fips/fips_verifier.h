/// What has to hold before FIPS mode may be switched on: something would remain of every list.
#ifndef FIPS_FIPS_VERIFIER_H
#define FIPS_FIPS_VERIFIER_H

#include "platform/datastore.h"

/// Refuses the creation of the switch when FIPS mode would leave nothing of a list of the server's or the client's; every
/// other event is accepted.
platform_status verify_fips_mode(const datastore_backend_call* call, void* context);

/// The switch takes effect by its notification, when the commit's other changes are in the files. Returns 0.
platform_status apply_fips_mode(const datastore_backend_call* call, void* context);

#endif
