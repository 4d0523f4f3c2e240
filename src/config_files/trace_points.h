/// Trace points: configuration files of servers and client.
#ifndef CONFIG_FILES_TRACE_POINTS_H
#define CONFIG_FILES_TRACE_POINTS_H

#include "core/trace.h"

// clang-format off
#define CONFIG_FILES_TRACE_POINTS(ERROR, EVENT)                                                         \
    ERROR(0x200, config_files, open, "file not opened", "file", "mode", "status")                       \
    ERROR(0x201, config_files, write, "file not written", "file", "status")                             \
    ERROR(0x202, config_files, rename, "temporary file not renamed over the file", "file", "status")    \
    ERROR(0x203, config_files, copy, "file not copied", "source", "destination", "status")              \
    ERROR(0x204, config_files, create, "folder or file not created", "path", "status")                  \
    ERROR(0x205, config_files, remove, "file not removed", "file", "status")                            \
    EVENT(0x206, config_files, recreated, "file written anew from the tables", "file")                  \
    EVENT(0x207, config_files, changed, "line of a file changed", "file", "keyword", "added")           \
    ERROR(0x208, config_files, argument, "edit without file or keyword", "function", "file", "keyword")
// clang-format on

CONFIG_FILES_TRACE_POINTS(DEFINE_TRACE_ERROR, DEFINE_TRACE_EVENT)

#endif
