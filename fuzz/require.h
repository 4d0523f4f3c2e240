/// Checks of the fuzz targets.
#ifndef FUZZ_REQUIRE_H
#define FUZZ_REQUIRE_H

#include <cstdlib>

/// Ends the program if the condition does not hold, which is how a fuzz target reports a failure.
inline void require(bool holds) {
    if (!holds) {
        abort();
    }
}

#endif
