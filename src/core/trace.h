/// The two trace buffers: failures, and applied changes and lifecycle events.
#ifndef CORE_TRACE_H
#define CORE_TRACE_H

#include <cstdint>
#include <initializer_list>

#include "platform/trace.h"

/// An argument of a trace entry: a text or a number.
struct trace_value : trace_argument {
    trace_value(const char* value) : trace_argument{value != nullptr ? value : "NULL", 0} {}
    trace_value(int64_t value) : trace_argument{nullptr, value} {}
    trace_value(int value) : trace_argument{nullptr, value} {}
    trace_value(uint32_t value) : trace_argument{nullptr, value} {}
};

/// First trace-point code of each room; a room numbers its call sites from here in an enum of its own.
enum trace_room : uint32_t {
    trace_room_core = 0x100,
    trace_room_config_files = 0x200,
    trace_room_vrf = 0x300,
    trace_room_appliers = 0x400,
    trace_room_fips = 0x500,
    trace_room_acl = 0x600,
    trace_room_host = 0x700,
    trace_room_oper = 0x800,
};

/// Creates both buffers. A failure is logged and not fatal: that buffer then stays silent.
void trace_initialise();

/// Adds an entry with at most three arguments. Both leave errno alone.
void trace_error(uint32_t trace_point, std::initializer_list<trace_value> arguments = {});
void trace_event(uint32_t trace_point, std::initializer_list<trace_value> arguments = {});

#endif
