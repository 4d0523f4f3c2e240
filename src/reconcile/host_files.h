/// Comparison of the PAM file and the banners with the configuration.
#ifndef RECONCILE_HOST_FILES_H
#define RECONCILE_HOST_FILES_H

#include "reconcile/findings.h"

/// Rewrites what is missing or differs. May throw std::bad_alloc.
void compare_host_files(comparison& run);

#endif
