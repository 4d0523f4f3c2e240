/// Trace buffers: rings of the last entries, always on.
#ifndef PLATFORM_TRACE_H
#define PLATFORM_TRACE_H

#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

struct trace_buffer;

enum { TRACE_ARGUMENTS_MAX = 3 };

/// An argument of a trace entry: text when `text` is set (it is copied), else the number.
struct trace_argument {
    const char* text;
    int64_t number;
};

/// Creates a ring of `entries` entries of at most `bytes` bytes in all, under a name by which people find it.
platform_status trace_buffer_create(const char* name, uint32_t entries, uint32_t bytes, struct trace_buffer** buffer);

/// Adds an entry with up to TRACE_ARGUMENTS_MAX arguments; the oldest one makes room. A null buffer is accepted and
/// nothing happens. Leaves errno alone.
void trace_write(struct trace_buffer* buffer, uint32_t trace_point, const struct trace_argument* arguments,
                 uint32_t count);

#ifdef __cplusplus
}
#endif

#endif
