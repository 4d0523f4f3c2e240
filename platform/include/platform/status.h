/// Results of the platform's operations.
///
/// A status is 0 for success, an errno value (1 to 4095) for a failure of the operating system, or one of the
/// platform's own codes below. Log lines print it with its text as "Error:=%s(0x%x)".
#ifndef PLATFORM_STATUS_H
#define PLATFORM_STATUS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t platform_status;

enum {
    PLATFORM_OK = 0,
    /// The requested item does not exist.
    DATASTORE_NO_SUCH_ITEM = 0x40818200,
    /// A provider has nothing to answer with; the read ends without a record.
    DATASTORE_NO_DATA = 0x40818400,
    /// The requested list does not exist (yet).
    DATASTORE_NO_SUCH_LIST = 0x40818600,
    /// The tree that contains the list does not exist (yet).
    DATASTORE_NO_SUCH_TREE = 0x40828600,
    /// A read produced no record to encode.
    DATASTORE_NOTHING_TO_ENCODE = 0x40818800,
    /// The item table has no handler for the item.
    DATASTORE_NO_HANDLER = 0x40818a00,
    /// The datastore's client library is not present on this node.
    DATASTORE_UNAVAILABLE = 0x8081c200,
    /// A packed value does not match its format.
    TUPLE_MALFORMED = 0x40838200,
    /// A record does not match its descriptor, or the schema is invalid.
    RECORD_MALFORMED = 0x40848200,
    /// The record's descriptor is not registered.
    RECORD_UNKNOWN = 0x40848400
};

/// The human-readable text of a status. Never null; in static or thread-local storage that the next call may overwrite.
const char* platform_status_text(platform_status status);

#ifdef __cplusplus
}
#endif

#endif
