/// Value tuples: several fields in one configuration value, any of which may be absent.
///
/// Packed form, little-endian, no padding: a uint32_t presence mask (bit i set when field i is present), then every
/// present field in order: 'd' as an int32_t, 's' and 'S' as a uint16_t length, that many bytes without a NUL among
/// them, and a NUL.
#ifndef PLATFORM_VALUE_TUPLE_H
#define PLATFORM_VALUE_TUPLE_H

#include <stddef.h>
#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    TUPLE_FIELDS_MAX = 32,
    TUPLE_NAME_MAX = 40,    ///< characters of an 's' field
    TUPLE_TEXT_MAX = 1023,  ///< characters of an 'S' field
};

/// One unpacked field: `number` for 'd', `text` for 's' and 'S' (pointing into the packed value). Zero and null when
/// the field is absent.
struct tuple_field {
    int32_t number;
    const char* text;
};

/// Unpacks a value. `format` has one "%d", "%s" (a name of at most TUPLE_NAME_MAX characters) or "%S" (a text) for each
/// of the `count` fields. Absent fields are set to zero and null. Returns TUPLE_MALFORMED, with the fields unchanged,
/// when the value does not match the format or has trailing bytes.
platform_status tuple_decode(const void* packed, size_t size, const char* format, struct tuple_field* fields,
                             uint32_t count);

/// The same, and stores the presence mask.
platform_status tuple_decode_mask(const void* packed, size_t size, const char* format, struct tuple_field* fields,
                                  uint32_t count, uint32_t* mask);

/// Packs the fields whose bits are set in `mask`. `*size` receives the packed size; ENOSPC when it exceeds `capacity`,
/// TUPLE_MALFORMED when a field does not match its format.
platform_status tuple_encode(void* packed, size_t capacity, const char* format, const struct tuple_field* fields,
                             uint32_t count, uint32_t mask, size_t* size);

#ifdef __cplusplus
}
#endif

#endif
