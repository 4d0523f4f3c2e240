/// Values that are a list of names, and values that are a row of flags.
#ifndef APPLIERS_NAME_TUPLE_H
#define APPLIERS_NAME_TUPLE_H

#include <cstdint>

#include "platform/algorithms.h"
#include "platform/datastore_backend.h"
#include "platform/value_tuple.h"

inline constexpr uint32_t kex_name_count = algorithm_settings(algorithm_kind::kex);
inline constexpr uint32_t cipher_name_count = algorithm_settings(algorithm_kind::cipher);
inline constexpr uint32_t host_key_flag_count = algorithm_settings(algorithm_kind::key);

/// The names of a list in order. They point into the packed value; a missing name before the last one is empty.
struct name_tuple {
    const char* names[TUPLE_FIELDS_MAX];
    uint32_t count;
};

/// Unpacks a list of at most `most` names (kex_name_count or cipher_name_count). Failures are logged with `tag`.
platform_status unpack_names(const datastore_change& change, uint32_t most, const char* tag, name_tuple* names);

/// Unpacks `count` flags; an absent one is 0. Failures are logged with `tag`.
platform_status unpack_flags(const datastore_change& change, uint32_t count, const char* tag, int32_t* flags);

#endif
