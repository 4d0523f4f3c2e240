#include "core/trace.h"

#include <cerrno>

#include "core/log.h"

namespace {

constexpr uint32_t trace_entries = 200;
constexpr uint32_t trace_bytes = 12400;

struct trace_ring {
    const char* type;
    const char* name;
    trace_buffer* buffer;
};

trace_ring error_ring{"error-trace", "ssh/cfg-agent/error", nullptr};
trace_ring event_ring{"event-trace", "ssh/cfg-agent/event", nullptr};

void create_ring(trace_ring& ring) {
    const platform_status status = trace_buffer_create(ring.name, trace_entries, trace_bytes, &ring.buffer);
    if (status != PLATFORM_OK) {
        ring.buffer = nullptr;
        log_trace_failure("cfg-agent", ring.type, trace_entries, ring.name, status);
    }
}

void write_entry(const trace_ring& ring, uint32_t trace_point, std::initializer_list<trace_value> arguments) {
    const int saved_errno = errno;
    trace_argument copies[TRACE_ARGUMENTS_MAX];
    uint32_t count = 0;
    for (const trace_value& value : arguments) {
        if (count == TRACE_ARGUMENTS_MAX) {
            break;
        }
        copies[count++] = value;
    }
    trace_write(ring.buffer, trace_point, copies, count);
    errno = saved_errno;
}

}  // namespace

void trace_initialise() {
    create_ring(error_ring);
    create_ring(event_ring);
}

void trace_error(uint32_t trace_point, std::initializer_list<trace_value> arguments) {
    write_entry(error_ring, trace_point, arguments);
}

void trace_event(uint32_t trace_point, std::initializer_list<trace_value> arguments) {
    write_entry(event_ring, trace_point, arguments);
}
