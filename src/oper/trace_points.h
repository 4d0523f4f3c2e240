/// Trace points of operational data.
#ifndef OPER_TRACE_POINTS_H
#define OPER_TRACE_POINTS_H

#include "core/trace.h"

enum oper_trace_point : uint32_t {
    oper_trace_socket_option = trace_room_oper,
    oper_trace_pid_file,
    oper_trace_node_id,
    oper_trace_allocation,
    oper_trace_encode,
    oper_trace_data_list,
    oper_trace_provider,
    oper_trace_record_set,
    oper_trace_telemetry,
};

#endif
