/// Trace points of appliers/.
#ifndef APPLIERS_TRACE_POINTS_H
#define APPLIERS_TRACE_POINTS_H

#include <cstdint>

#include "core/trace.h"

enum appliers_trace_point : uint32_t {
    appliers_trace_logging = trace_room_appliers,
    appliers_trace_server_dscp,
    appliers_trace_timeout,
    appliers_trace_max_auth_limit,
    appliers_trace_rate_limit,
    appliers_trace_session_limit,
    appliers_trace_port_forwarding,
    appliers_trace_server_window_scale,
    appliers_trace_server_rekey_time,
    appliers_trace_server_rekey_volume,
    appliers_trace_port_forwarding_value,
    appliers_trace_port_forwarding_event,
    appliers_trace_vrf_name,
    // Codes are kept for good: append.
};

#endif
