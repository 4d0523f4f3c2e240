/// Trace points: operational data and telemetry.
#ifndef OPER_TRACE_POINTS_H
#define OPER_TRACE_POINTS_H

#include "core/trace.h"

// clang-format off
#define OPER_TRACE_POINTS(ERROR, EVENT)                                                           \
    ERROR(0x800, oper, socket_option, "option of the session socket not set", "status", "option") \
    ERROR(0x801, oper, pid_file, "process list not removed", "file", "status")                    \
    ERROR(0x802, oper, node_id, "node identity unknown", "status")                                \
    ERROR(0x803, oper, allocation, "out of memory", "location", "status")                         \
    ERROR(0x804, oper, encode, "record not encoded", "record", "status")                          \
    ERROR(0x805, oper, data_list, "list of records not sent", "routine", "status")                \
    ERROR(0x806, oper, provider, "provider not registered", "path", "status")                     \
    ERROR(0x807, oper, record_set, "records of the provider not registered", "path", "status")    \
    ERROR(0x808, oper, telemetry, "telemetry not published", "step", "status")
// clang-format on

OPER_TRACE_POINTS(DEFINE_TRACE_ERROR, DEFINE_TRACE_EVENT)

#endif
