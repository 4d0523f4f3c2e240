/// Trace buffers: rings of the latest entries, always enabled.
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

/// Creates a ring of `entries` entries of at most `bytes` bytes in total, under a name shown to operators.
platform_status trace_buffer_create(const char* name, uint32_t entries, uint32_t bytes, struct trace_buffer** buffer);

/// What operators see of a trace point. All texts are UTF-8 without control characters.
struct trace_point {
    uint32_t code;                            ///< the number that entries carry
    const char* name;                         ///< such as "vrf.restarted": letters, digits, '_' and '.'
    const char* meaning;                      ///< what happened, in a few words
    const char* labels[TRACE_ARGUMENTS_MAX];  ///< of the arguments in their order; null behind the last one
};

/// Describes the trace points of a buffer, so that readers of its entries see the name for the code and the labels of the
/// arguments. "status" is the label of a platform_status or errno value. The array remains the caller's and must exist as
/// long as the process; a second call replaces the first. Entries of points without a description are accepted
/// and shown with their code. With a null buffer nothing happens. A platform whose readers do not need names
/// implements this as an empty function.
void trace_buffer_describe(struct trace_buffer* buffer, const struct trace_point* points, uint32_t count);

/// Adds an entry with up to TRACE_ARGUMENTS_MAX arguments, replacing the oldest one in a full ring. Does nothing with a
/// null buffer. Preserves errno.
void trace_write(struct trace_buffer* buffer, uint32_t code, const struct trace_argument* arguments, uint32_t count);

#ifdef __cplusplus
}
#endif

#endif
