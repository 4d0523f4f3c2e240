/// Backend dispatch: one static item table determines the verifier and the applier of each item.
#ifndef PLATFORM_DATASTORE_BACKEND_H
#define PLATFORM_DATASTORE_BACKEND_H

#include <stddef.h>
#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

/// Event bits. The first creation of an item is delivered as create and set together, a change as set with the
/// previous value present, a removal as delete; the initial scan delivers create and set.
enum {
    DATASTORE_EVENT_CREATE = 1,
    DATASTORE_EVENT_SET = 2,
    DATASTORE_EVENT_DELETE = 4,
    DATASTORE_EVENT_CREATE_OR_SET = DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET  ///< either sets a value
};

/// Forms of a value: 1 points at a uint32_t, 3 at NUL-terminated text, 5 at a packed tuple (platform/value_tuple.h).
enum { DATASTORE_VALUE_NUMBER = 1, DATASTORE_VALUE_TEXT = 3, DATASTORE_VALUE_TUPLE = 5 };

/// One change of one item. The values are valid until the handler returns.
struct datastore_change {
    uint32_t event;        ///< DATASTORE_EVENT_ bits
    const void* previous;  ///< the old value; null when the item did not exist
    const void* value;     ///< the new value; null on delete
    size_t previous_size;  ///< bytes at `previous`: 4, the text's length with its NUL, or the tuple's
    size_t value_size;     ///< bytes at `value`, likewise
};

/// The item's path below its binding, split at '/'. Component 2 of sshd/vrf/NAME is NAME.
struct datastore_path_components {
    const char* const* component;
    uint32_t count;
};

/// Accepts (`*accepted` = 1, returns 0) or refuses a change (`*accepted` = 0, returns an error number, and stores a text
/// for the operator, allocated with malloc, which the datastore frees).
typedef platform_status (*datastore_item_verifier)(const struct datastore_change* change, char** error_text,
                                                   uint32_t* accepted,
                                                   const struct datastore_path_components* components);

/// Applies a change. Returns 0, or non-zero for a failure that the datastore must see.
typedef platform_status (*datastore_item_applier)(const struct datastore_change* change,
                                                  const struct datastore_path_components* components);

enum { DATASTORE_NODE_NAMED = 1, DATASTORE_NODE_WILDCARD = 2 };

/// A node of the item tree, which is stored as an array.
struct datastore_item_node {
    const char* name;      ///< null for a wildcard, which matches any one component
    uint32_t type;         ///< DATASTORE_NODE_
    int32_t first_child;   ///< index, -1 for a leaf
    int32_t next_sibling;  ///< index, -1 for the last
    int32_t handler;       ///< index of its handler entry, -1 for an inner node
    uint32_t inner;        ///< 1 when the node has children
};

/// The form of an item's value and its handlers. Dispatching an item without the verifier or applier needed fails with
/// DATASTORE_NO_HANDLER.
struct datastore_item_handler {
    uint32_t value_kind;  ///< DATASTORE_VALUE_
    datastore_item_verifier verify;
    datastore_item_applier apply;
};

struct datastore_item_table {
    const struct datastore_item_node* nodes;  ///< node 0 is the first of the top level
    uint32_t node_count;
    const struct datastore_item_handler* handlers;
    uint32_t handler_count;
};

/// The argument of a binding's verify or apply callback, which passes it on to the dispatcher unchanged.
struct datastore_backend_call {
    const char* item;  ///< path below the binding, without a leading '/'
    const struct datastore_change* change;
    char** error_text;   ///< verification only
    uint32_t* accepted;  ///< verification only; 0 before the call
};

/// Finds the item in the table and calls its verifier. Returns the verifier's result, or DATASTORE_NO_HANDLER.
platform_status datastore_backend_verify(const struct datastore_backend_call* call,
                                         const struct datastore_item_table* table);

/// Finds the item in the table and calls its applier. Returns the applier's result, or DATASTORE_NO_HANDLER.
platform_status datastore_backend_apply(const struct datastore_backend_call* call,
                                        const struct datastore_item_table* table);

#ifdef __cplusplus
}
#endif

#endif
