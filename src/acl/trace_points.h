/// Trace points of access lists.
#ifndef ACL_TRACE_POINTS_H
#define ACL_TRACE_POINTS_H

#include "core/trace.h"

enum acl_trace_point : uint32_t {
    acl_trace_directory = trace_room_acl,
    acl_trace_file,
    acl_trace_load,
    acl_trace_bind,
    acl_trace_list,
    acl_trace_get_list,
    acl_trace_register,
    acl_trace_notice,
    acl_trace_changed,
    acl_trace_attached,
    acl_trace_detached,
};

#endif
