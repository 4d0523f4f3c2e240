/// Reading the trace buffers.
#ifndef LINUX_REPORTING_TRACE_INTERNAL_H
#define LINUX_REPORTING_TRACE_INTERNAL_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/trace.h"

/// An argument as it was traced: text when `is_text`, else the number.
struct traced_argument {
    bool is_text;
    int64_t number;
    std::string text;
};

struct trace_record {
    uint64_t microseconds;  ///< since the epoch
    uint32_t code;
    const trace_point* point;  ///< null: the code has no description
    std::vector<traced_argument> arguments;
};

struct trace_buffer_contents {
    uint64_t written;  ///< entries written since the buffer was created, including those overwritten since
    std::vector<trace_record> records;  ///< the entries still kept, oldest first
};

/// Reads a buffer by its full name or by the part after its last '/' ("error"). ENOENT if there is none.
platform_status trace_buffer_read(const std::string& name, trace_buffer_contents& contents);

#endif
