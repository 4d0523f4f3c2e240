/// Trace points: start-up, dispatch and debug levels.
#ifndef CORE_TRACE_POINTS_H
#define CORE_TRACE_POINTS_H

#include "core/trace.h"

// clang-format off
#define CORE_TRACE_POINTS(ERROR, EVENT)                                                          \
    EVENT(0x100, core, started, "agent started", "role", "respawn_count")                        \
    ERROR(0x101, core, start_up_failed, "start-up step failed", "step", "status")                \
    EVENT(0x102, core, ready, "agent ready")                                                     \
    ERROR(0x103, core, namespace_attach, "handler of namespace messages not attached", "status") \
    ERROR(0x104, core, dispatch, "item handlers not registered", "item", "status")               \
    EVENT(0x105, core, debug_level, "debug flag switched", "action", "flag")                     \
    ERROR(0x106, core, command_timed_out, "command did not end in time", "command", "seconds")
// clang-format on

CORE_TRACE_POINTS(DEFINE_TRACE_ERROR, DEFINE_TRACE_EVENT)

#endif
