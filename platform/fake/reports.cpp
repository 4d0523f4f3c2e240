#include <errno.h>

#include <algorithm>
#include <memory>
#include <span>

#include "fake_internal.h"
#include "platform/debug.h"
#include "platform/fault_injection.h"
#include "platform/trace.h"

struct trace_buffer {
    std::string name;
    std::span<const trace_point> points;
};

namespace fake_platform {
namespace {

struct debug_listener {
    std::string path;
    debug_event_handler handler;
    void* context;
};

struct report_state {
    std::vector<log_line> log;
    std::vector<debug_line> debug;
    std::vector<trace_line> trace;
    std::vector<debug_flag> flags;
    std::vector<debug_listener> listeners;
    std::vector<std::unique_ptr<trace_buffer>> buffers;
    std::vector<fault_point> fault_points;
};

report_state reports;

/// Separate from the other state, because it is read before every debug print.
bool flag_on[32];

/// Restores errno, which no report may change.
class errno_keeper {
  public:
    errno_keeper() : kept_(errno) {}
    ~errno_keeper() { errno = kept_; }
    errno_keeper(const errno_keeper&) = delete;
    errno_keeper& operator=(const errno_keeper&) = delete;

  private:
    int kept_;
};

const trace_point* point_of(const trace_buffer& buffer, uint32_t code) {
    const auto found =
        std::find_if(buffer.points.begin(), buffer.points.end(), [=](const trace_point& p) { return p.code == code; });
    return found != buffer.points.end() ? &*found : nullptr;
}

std::string argument_text(const trace_argument& argument) {
    return argument.text != nullptr ? argument.text : std::to_string(argument.number);
}

}  // namespace

const std::vector<log_line>& log_lines() {
    return reports.log;
}

std::vector<std::string> log_texts() {
    std::vector<std::string> texts;
    for (const log_line& line : reports.log) {
        texts.push_back(line.name + ": " + line.text);
    }
    return texts;
}

bool logged(std::string_view name, std::string_view text) {
    return std::any_of(reports.log.begin(), reports.log.end(),
                       [=](const log_line& line) { return line.name == name && line.text == text; });
}

const std::vector<debug_line>& debug_lines() {
    return reports.debug;
}

std::vector<std::string> debug_texts() {
    std::vector<std::string> texts;
    for (const debug_line& line : reports.debug) {
        texts.push_back(line.text);
    }
    return texts;
}

bool debugged(std::string_view text) {
    return std::any_of(reports.debug.begin(), reports.debug.end(),
                       [=](const debug_line& line) { return line.text == text; });
}

const std::vector<debug_flag>& debug_flags() {
    return reports.flags;
}

void preset_debug_flag(uint32_t id, bool on) {
    flag_on[id % std::size(flag_on)] = on;
}

void set_debug_flag(uint32_t id, bool on) {
    preset_debug_flag(id, on);
    const std::vector<debug_listener> listeners = reports.listeners;
    for (const debug_listener& listener : listeners) {
        listener.handler(on ? DEBUG_ACTION_ON : DEBUG_ACTION_OFF, id, listener.context);
    }
}

const std::vector<trace_line>& trace_lines() {
    return reports.trace;
}

std::vector<trace_line> trace_lines_of(std::string_view buffer) {
    std::vector<trace_line> found;
    std::copy_if(reports.trace.begin(), reports.trace.end(), std::back_inserter(found),
                 [buffer](const trace_line& line) { return line.buffer == buffer; });
    return found;
}

const std::vector<fault_point>& fault_points() {
    return reports.fault_points;
}

void clear_reports() {
    reports.log.clear();
    reports.debug.clear();
    reports.trace.clear();
}

namespace internal {

void reset_reports() {
    reports = report_state();
    std::fill(std::begin(flag_on), std::end(flag_on), false);
}

}  // namespace internal
}  // namespace fake_platform

using namespace fake_platform;
using internal::enter;

void log_message_send(const log_message_entry* entry, const char* text) {
    const errno_keeper keeper;
    if (internal::recording()) {
        reports.log.push_back({entry->name, text, entry->severity, entry->number, entry});
    }
}

platform_status debug_flag_register(const char* path, uint32_t id, const char* name, uint32_t type, uint32_t level) {
    const platform_status status = enter("debug_flag_register", {path, id, name, type, level});
    if (status != PLATFORM_OK) {
        return status;
    }
    if (id == 0 || id >= std::size(flag_on)) {
        return EINVAL;
    }
    reports.flags.push_back({path, id, name, type, level});
    return PLATFORM_OK;
}

platform_status debug_event_register(event_manager*, const char* path, debug_event_handler handler, void* context) {
    const platform_status status = enter("debug_event_register", {path});
    if (status == PLATFORM_OK) {
        reports.listeners.push_back({path, handler, context});
    }
    return status;
}

int debug_flag_is_on(uint32_t id) {
    return id < std::size(flag_on) && flag_on[id] ? 1 : 0;
}

void debug_write(uint32_t id, const char* line) {
    const errno_keeper keeper;
    if (internal::recording()) {
        reports.debug.push_back({id, line});
    }
}

platform_status trace_buffer_create(const char* name, uint32_t entries, uint32_t bytes, trace_buffer** buffer) {
    const platform_status status = enter("trace_buffer_create", {name, entries, bytes});
    if (status == PLATFORM_OK) {
        reports.buffers.push_back(std::make_unique<trace_buffer>(trace_buffer{name, {}}));
        *buffer = reports.buffers.back().get();
    }
    return status;
}

void trace_buffer_describe(trace_buffer* buffer, const trace_point* points, uint32_t count) {
    if (buffer != nullptr) {
        buffer->points = {points, count};
    }
}

void trace_write(trace_buffer* buffer, uint32_t code, const trace_argument* arguments, uint32_t count) {
    const errno_keeper keeper;
    if (buffer == nullptr || !internal::recording()) {
        return;
    }
    trace_line line = {buffer->name, code, point_of(*buffer, code), {}};
    for (uint32_t i = 0; i < count && i < TRACE_ARGUMENTS_MAX; i++) {
        line.arguments.push_back(argument_text(arguments[i]));
    }
    reports.trace.push_back(std::move(line));
}

platform_status fault_injection_register(const char* component, fault_point* points, uint32_t count) {
    const platform_status status = enter("fault_injection_register", {component, count});
    if (status == PLATFORM_OK) {
        reports.fault_points.insert(reports.fault_points.end(), points, points + count);
    }
    return status;
}
