#include "core/refusal.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/debug.h"

namespace {

constexpr size_t refusal_size = 512;

}  // namespace

platform_status refuse_change(char** error_text, uint32_t* accepted, platform_status status,
                              trace_error_point trace_point, const char* format, ...) {
    char text[refusal_size];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    debug_print("%s", text);
    trace_error(trace_point, {text, status});
    *accepted = 0;
    *error_text = strdup(text);
    return status;
}
