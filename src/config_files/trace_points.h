/// Trace points of config_files/.
#ifndef CONFIG_FILES_TRACE_POINTS_H
#define CONFIG_FILES_TRACE_POINTS_H

#include <cstdint>

#include "core/trace.h"

enum config_files_trace_point : uint32_t {
    config_files_trace_open = trace_room_config_files,
    config_files_trace_write,
    config_files_trace_rename,
    config_files_trace_copy,
    config_files_trace_create,
    config_files_trace_remove,
    config_files_trace_recreated,
    config_files_trace_changed,
    config_files_trace_argument,
};

#endif
