/// Handlers for items that need none of their own.
#ifndef CORE_DEFAULT_HANDLERS_H
#define CORE_DEFAULT_HANDLERS_H

#include "platform/datastore_backend.h"

/// Accepts every value.
platform_status default_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                 const datastore_path_components* components);

/// Accepts the item, which has no effect.
platform_status default_applier(const datastore_change* change, const datastore_path_components* components);

/// Accepts the item with a warning that this platform does not support it.
platform_status unsupported_item_applier(const datastore_change* change, const datastore_path_components* components);

#endif
