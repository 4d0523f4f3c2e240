/// The item table: which verifier and which applier every configuration item has.
#ifndef CORE_ITEM_TABLE_H
#define CORE_ITEM_TABLE_H

#include "platform/datastore_backend.h"

/// Serves the trees of the server, the client and the backup server alike: an item is identified by its path below its
/// binding.
extern const datastore_item_table item_table;

/// Callbacks of the three bindings: pass the call to the dispatcher, log its failure and return its result.
platform_status verify_configuration(const datastore_backend_call* call, void* context);
platform_status apply_configuration(const datastore_backend_call* call, void* context);

#endif
