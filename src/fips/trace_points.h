/// Trace points: FIPS mode.
#ifndef FIPS_TRACE_POINTS_H
#define FIPS_TRACE_POINTS_H

#include "core/trace.h"

// clang-format off
#define FIPS_TRACE_POINTS(ERROR, EVENT)                                                            \
    ERROR(0x500, fips, question, "FIPS mode not read", "step", "status")                           \
    EVENT(0x501, fips, switched, "FIPS mode switched", "to", "function")                           \
    ERROR(0x502, fips, file, "file not written after the switch", "function", "problem", "status") \
    ERROR(0x503, fips, list, "no algorithm of the list is allowed", "function", "keyword")         \
    ERROR(0x504, fips, host_key_files, "no host-key file for the list", "list")                    \
    ERROR(0x505, fips, memory, "out of memory", "problem")                                         \
    ERROR(0x506, fips, refused, "FIPS mode refused", "reason", "status")                           \
    ERROR(0x507, fips, registration, "changes of FIPS mode not registered for", "step", "status")
// clang-format on

FIPS_TRACE_POINTS(DEFINE_TRACE_ERROR, DEFINE_TRACE_EVENT)

#endif
