/// Datastore: the router's configuration and operational data.
///
/// All callbacks run on the event loop's thread. Paths are absolute and their components are separated by '/'; a path to
/// bind to ends in '/'.
#ifndef PLATFORM_DATASTORE_H
#define PLATFORM_DATASTORE_H

#include <stddef.h>
#include <stdint.h>

#include "platform/datastore_backend.h"
#include "platform/event_manager.h"
#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

struct datastore_binding;
struct datastore_list;
struct datastore_provider;
struct datastore_read_request;
struct record_descriptor;

/// Binds to the subtree at `path`. On success the caller owns `*binding` until datastore_unbind.
platform_status datastore_bind(const char* path, struct datastore_binding** binding);

/// Releases a binding and everything registered on it. Null is accepted.
platform_status datastore_unbind(struct datastore_binding* binding);

/// Reads the item at `item` below the binding into `value` (`capacity` bytes): a uint32_t, a text with its NUL, or a
/// packed tuple. If `size` is not null, `*size` receives the value's size. A null `value` only asks whether the item
/// exists. While the verifiers of a commit run, an item changed by the commit reads as its new value, so that a verifier
/// can judge the commit as a whole. Returns DATASTORE_NO_SUCH_ITEM when there is no such item, ENOSPC when the value does
/// not fit.
platform_status datastore_item_get(struct datastore_binding* binding, const char* item, void* value, size_t capacity,
                                   size_t* size);

/// Lists the entries directly below `path` (relative to the binding, ending in '/'): at most `count`, or all with -1.
/// The caller frees the list. While verifiers run, a list of items reads as the commit would leave it. DATASTORE_NO_SUCH_LIST or DATASTORE_NO_SUCH_TREE when there is nothing to list.
platform_status datastore_list_get(struct datastore_binding* binding, const char* path, int32_t count,
                                   struct datastore_list** list, uint32_t* found);

/// The name (last path component) of an entry. Owned by the list; null past its end.
const char* datastore_list_name(const struct datastore_list* list, uint32_t index);

/// The encoded record of an entry. Owned by the list.
platform_status datastore_list_fetch(const struct datastore_list* list, uint32_t index, const void** record,
                                     size_t* size);

/// Frees a list. Null is accepted.
void datastore_list_free(struct datastore_list* list);

/// Called before a commit is stored. A non-zero result refuses the whole commit.
typedef platform_status (*datastore_verify_callback)(const struct datastore_backend_call* call, void* context);

/// Called after the commit is stored, in byte order of the paths.
typedef platform_status (*datastore_apply_callback)(const struct datastore_backend_call* call, void* context);

/// Registers for changes of the items that match `pattern` (empty: the whole bound subtree) and the events in
/// `event_mask`; delivered through `manager`.
platform_status datastore_register_verification(struct datastore_binding* binding, const char* pattern,
                                                uint32_t event_mask, datastore_verify_callback verify,
                                                datastore_apply_callback apply, struct event_manager* manager,
                                                void* context);

/// A change that has happened. The values are as in struct datastore_change.
struct datastore_notification {
    const char* item;
    uint32_t event;
    const void* value;
    size_t value_size;
};

typedef void (*datastore_notification_callback)(const struct datastore_notification* notification, void* context);

/// Registers for a notice of each change of `item` that has an event in `event_mask`; delivered through `manager` after
/// the appliers of the commit.
platform_status datastore_register_notification(struct datastore_binding* binding, const char* item,
                                                uint32_t event_mask, datastore_notification_callback callback,
                                                struct event_manager* manager, void* context);

/// Runs every stored item below the binding that matches `pattern` through its applier, as a create-and-set, in byte
/// order of the paths. `cookie` appears in the platform's own traces. Returns the first failure of the datastore itself;
/// an applier's failure does not end the scan.
platform_status datastore_backend_scan(struct datastore_binding* binding, const struct datastore_item_table* table,
                                       const char* pattern, uint32_t cookie, struct event_manager* manager);

/// Answers a read of `item` below the provider's path: fills the request and returns 0, or DATASTORE_NO_DATA,
/// DATASTORE_NOTHING_TO_ENCODE, or an error.
typedef platform_status (*datastore_provider_callback)(struct datastore_read_request* request, const char* item,
                                                       void* context);

/// Registers a provider for the operational tree at `path`. On success the caller owns `*provider`.
platform_status datastore_provider_register(const char* path, datastore_provider_callback callback,
                                            struct event_manager* manager, void* context,
                                            struct datastore_provider** provider);

/// Unregisters a provider and frees it. Null is accepted.
platform_status datastore_provider_unregister(struct datastore_provider* provider);

/// Answers the request with one encoded record of the given type; the bytes are copied.
platform_status datastore_request_set_record(struct datastore_read_request* request,
                                             const struct record_descriptor* descriptor, const void* record,
                                             size_t size);

/// Makes the request's answer a list, initially empty.
platform_status datastore_request_create_list(struct datastore_read_request* request);

/// Adds one encoded record to the request's list; the bytes are copied.
platform_status datastore_request_add_record(struct datastore_read_request* request,
                                             const struct record_descriptor* descriptor, const void* record,
                                             size_t size);

/// Whether a character is not allowed in names because the datastore or a shell may interpret it: 0 for letters, digits,
/// '_', '-' and '.', 1 for everything else.
int datastore_reserved_character(int character);

#ifdef __cplusplus
}
#endif

#endif
