/// Trace points of fips/.
#ifndef FIPS_TRACE_POINTS_H
#define FIPS_TRACE_POINTS_H

#include <cstdint>

#include "core/trace.h"

enum fips_trace_point : uint32_t {
    fips_trace_question = trace_room_fips,
    fips_trace_switched,
    fips_trace_file,
    fips_trace_list,
    fips_trace_host_key_files,
    fips_trace_memory,
    fips_trace_refused,
    fips_trace_registration,
    // Codes are kept for good: append.
};

#endif
