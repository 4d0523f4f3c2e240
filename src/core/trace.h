/// The two trace buffers: one for failures, one for applied changes and lifecycle events.
#ifndef CORE_TRACE_H
#define CORE_TRACE_H

#include <cstdint>
#include <initializer_list>
#include <span>

#include "platform/trace.h"

/// The code of a trace point. Failures and events have different types, so that neither can enter the other's buffer.
enum class trace_error_point : uint32_t {};
enum class trace_event_point : uint32_t {};

// Each module lists its trace points in its trace_points.h, one row each. For example,
//
//     ERROR(0x302, vrf, vrf_id, "number of the VRF not found", "vrf", "status")
//
// is the failure vrf_trace_vrf_id. The operator sees it as "vrf.vrf_id", with its meaning and the labels of its
// arguments. Codes are never reused: scripts select entries by them. The label "status" marks a platform_status or an
// errno value. Each list is expanded twice: into the constants for the call sites, and into the rows of
// core/trace_table.cpp.
#define DEFINE_TRACE_ERROR(code, module, name, ...) inline constexpr trace_error_point module##_trace_##name{code};
#define DEFINE_TRACE_EVENT(code, module, name, ...) inline constexpr trace_event_point module##_trace_##name{code};

/// An argument of a trace entry: a text or a number.
struct trace_value : trace_argument {
    trace_value(const char* value) : trace_argument{value != nullptr ? value : "NULL", 0} {}
    trace_value(int64_t value) : trace_argument{nullptr, value} {}
    trace_value(int value) : trace_argument{nullptr, value} {}
    trace_value(uint32_t value) : trace_argument{nullptr, value} {}
};

/// The descriptions of all trace points, in static storage.
struct trace_table {
    std::span<const trace_point> errors;
    std::span<const trace_point> events;
};

/// Creates both buffers and describes their trace points. A failure is logged and not fatal: nothing is traced into
/// that buffer then.
void trace_initialise(const trace_table& table = {});

/// Add an entry with at most three arguments. Both leave errno unchanged.
void trace_error(trace_error_point point, std::initializer_list<trace_value> arguments = {});
void trace_event(trace_event_point point, std::initializer_list<trace_value> arguments = {});

#endif
