/// Record codec: converts native structures to the bytes that the datastore carries, and back, by a schema text.
///
/// Schema notation. "$N=" opens the definition of type N and ';' closes it; the first definition is the record's own.
/// "{Name}" names the field that follows. Fields: D unsigned 32-bit; I unsigned 16-bit; C unsigned 8-bit; A IPv4
/// address of 4 bytes in network byte order; "WxC" W bytes; s owned
/// NUL-terminated text pointer, null when absent; "[name]e" signed 32-bit value of that enumeration; b boolean of 4 bytes
/// (0 or 1); "Wx%S" text of W bytes inside the structure; a($N) counted array (uint32_t count, then pointer); p($N)
/// pointer to one structure, null when absent; p(b), p(e) (4 bytes) and p(I) (2 bytes) optional values given by pointer;
/// "$N" an embedded structure. A definition that begins with L and ends in a field Pp(own type) is an element of a
/// singly linked list through that field. "%n" after D marks the number as a node id. Structures have the natural
/// alignment of their fields on a 64-bit machine. The compact schema is the same text without the names, with a '.'
/// after an embedded structure.
#ifndef PLATFORM_RECORD_CODEC_H
#define PLATFORM_RECORD_CODEC_H

#include <stddef.h>
#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

struct record_descriptor {
    const char* name;     ///< record type
    const char* library;  ///< descriptor set
    const char* full_schema;
    const char* compact_schema;
};

struct record_transaction;

/// Opens a transaction in which the descriptors of one set are registered.
platform_status record_registration_begin(struct record_transaction** transaction);

/// Registers one descriptor, which must remain valid while it is in use. RECORD_MALFORMED for an invalid schema.
platform_status record_register(struct record_transaction* transaction, const struct record_descriptor* descriptor);

/// Commits the registration of the transaction's descriptors and frees the transaction.
platform_status record_registration_end(struct record_transaction* transaction);

/// Discards the transaction's descriptors and frees the transaction.
void record_registration_abort(struct record_transaction* transaction);

/// Encodes the structure at `record`. On success the caller frees `*encoded` with free().
platform_status record_encode(const struct record_descriptor* descriptor, const void* record, void** encoded,
                              size_t* size);

/// Decodes into the structure at `record` (`capacity` bytes, zeroed by the caller); record_release frees what it points
/// to. RECORD_MALFORMED when the bytes do not match the schema or the structure exceeds the capacity.
platform_status record_decode(const struct record_descriptor* descriptor, const void* encoded, size_t size,
                              void* record, size_t capacity);

/// Frees what record_decode allocated for the structure, but not the structure itself.
void record_release(const struct record_descriptor* descriptor, void* record);

#ifdef __cplusplus
}
#endif

#endif
