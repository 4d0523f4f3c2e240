/// Trace points of host/.
#ifndef HOST_TRACE_POINTS_H
#define HOST_TRACE_POINTS_H

#include <cstdint>

#include "core/trace.h"

enum host_trace_point : uint32_t {
    host_trace_banner_notified = trace_room_host,
    host_trace_banner_remove,
    host_trace_banner_create,
    host_trace_banner_write,
    host_trace_aaa_banner_notified,
    host_trace_pam_file,
    host_trace_pam_inotify,
    host_trace_pam_watch,
    host_trace_pam_watch_lost,
    host_trace_pam_read,
    host_trace_shelf_create,
    host_trace_shelf_connect,
    host_trace_shelf_connected,
    host_trace_shelf_register,
    host_trace_shelf_disconnected,
    host_trace_reload,
    host_trace_reload_timer,
    host_trace_session_list,
    host_trace_sessions_found,
    host_trace_session_signal,
    host_trace_sessions_signalled,
    host_trace_sessions_remain,
    host_trace_sessions_gone,
    host_trace_reload_acknowledge,
    host_trace_reload_abandoned,
    host_trace_file_system_list,
    // Codes are kept for good: append.
};

#endif
