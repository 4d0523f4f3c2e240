/// Trace points: comparison of the configuration with the machine.
#ifndef RECONCILE_TRACE_POINTS_H
#define RECONCILE_TRACE_POINTS_H

#include "core/trace.h"

// clang-format off
#define RECONCILE_TRACE_POINTS(ERROR, EVENT) \
    EVENT(0x900, reconcile, compared, "configuration compared with the machine", "repair", "left")
// clang-format on

RECONCILE_TRACE_POINTS(DEFINE_TRACE_ERROR, DEFINE_TRACE_EVENT)

#endif
