/// The registered record descriptors with their parsed schemas.
#ifndef PLATFORM_COMMON_RECORD_REGISTRY_H
#define PLATFORM_COMMON_RECORD_REGISTRY_H

#include "common/record_schema.h"
#include "platform/record_codec.h"

/// The schema of a registered descriptor, or null. Valid for the life of the process.
const record_schema* find_record_schema(const record_descriptor* descriptor);

#endif
