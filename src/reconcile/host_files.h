/// The PAM file and the banners against the configuration.
#ifndef RECONCILE_HOST_FILES_H
#define RECONCILE_HOST_FILES_H

#include "reconcile/findings.h"

/// Writes what is missing or differs again. May throw std::bad_alloc.
void compare_host_files(comparison& run);

#endif
