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

void create_ring(trace_ring& ring, std::span<const trace_point> points) {
    const platform_status status = trace_buffer_create(ring.name, trace_entries, trace_bytes, &ring.buffer);
    if (status != PLATFORM_OK) {
        ring.buffer = nullptr;
        log_trace_failure("cfg-agent", ring.type, trace_entries, ring.name, status);
    }
    trace_buffer_describe(ring.buffer, points.data(), static_cast<uint32_t>(points.size()));
}

void write_entry(const trace_ring& ring, uint32_t code, std::initializer_list<trace_value> arguments) {
    const int saved_errno = errno;
    trace_argument copies[TRACE_ARGUMENTS_MAX];
    uint32_t count = 0;
    for (const trace_value& value : arguments) {
        if (count == TRACE_ARGUMENTS_MAX) {
            break;
        }
        copies[count++] = value;
    }
    trace_write(ring.buffer, code, copies, count);
    errno = saved_errno;
}

}  // namespace

void trace_initialise(const trace_table& table) {
    create_ring(error_ring, table.errors);
    create_ring(event_ring, table.events);
}

void trace_error(trace_error_point point, std::initializer_list<trace_value> arguments) {
    write_entry(error_ring, static_cast<uint32_t>(point), arguments);
}

void trace_event(trace_event_point point, std::initializer_list<trace_value> arguments) {
    write_entry(event_ring, static_cast<uint32_t>(point), arguments);
}
