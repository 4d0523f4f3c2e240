/// Appliers of the single-valued settings, made from the rows of appliers/items.def: each turns its item's number into one
/// keyword line of every VRF's server file, or of the client's file.
#ifndef APPLIERS_SETTINGS_H
#define APPLIERS_SETTINGS_H

#include "platform/datastore_backend.h"

/// Each returns 0, whatever became of the file, whose edit reports failures itself; or what the row's check refused with.
#define SETTING(path, verifier, applier, ...) \
    platform_status applier(const datastore_change* change, const datastore_path_components* components);
#include "appliers/items.def"

#endif
