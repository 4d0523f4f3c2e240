/// Whether this router is in FIPS mode, in which servers and clients offer only approved algorithms.
#ifndef FIPS_FIPS_MODE_H
#define FIPS_FIPS_MODE_H

#include <cstdint>

/// The switch, below the crypto tree. FIPS mode is on as long as the item exists, whatever its value.
inline constexpr char fips_mode_item[] = "fipsmode/value";

/// Reads the datastore each time: 1 on, 0 off, -1 unknown. Callers must not take -1 for off.
int32_t fips_mode_get();

#endif
