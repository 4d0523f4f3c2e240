/// Trace points of core/.
#ifndef CORE_TRACE_POINTS_H
#define CORE_TRACE_POINTS_H

#include <cstdint>

#include "core/trace.h"

enum core_trace_point : uint32_t {
    core_trace_started = trace_room_core,
    core_trace_start_up_failed,
    core_trace_ready,
    core_trace_namespace_attach,
    core_trace_dispatch,
    core_trace_debug_level,
};

#endif
