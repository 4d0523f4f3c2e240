/// Appliers of the single-valued settings, generated from the rows of config_files/configuration.def. Each turns its
/// item's number into one keyword line of every VRF's server file, or of the client's file.
#ifndef APPLIERS_SETTINGS_H
#define APPLIERS_SETTINGS_H

#include "platform/datastore_backend.h"

/// Each returns 0, or the result of the row's check if that refuses the value. Editing a file reports its own failures.
#define SETTING(path, verifier, applier, ...) \
    platform_status applier(const datastore_change* change, const datastore_path_components* components);
#include "config_files/configuration.def"

#endif
