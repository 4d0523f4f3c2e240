#include "core/debug.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "core/paths.h"
#include "platform/debug.h"

namespace {

constexpr size_t debug_line_size = 2048;

struct flag_row {
    debug_flag id;
    const char* name;
};

constexpr flag_row flags[] = {
    {debug_server_l1, "server-l1"}, {debug_server_l2, "server-l2"},       {debug_server_l3, "server-l3"},
    {debug_client_l1, "client-l1"}, {debug_client_l2, "client-l2"},       {debug_client_l3, "client-l3"},
    {debug_cfg_agent, "cfg-agent"}, {debug_syslog_proxy, "syslog-proxy"}, {debug_telemetry, "telemetry"},
};

void print_line(debug_flag flag, const char* format, va_list arguments) {
    char line[debug_line_size];
    if (std::vsnprintf(line, sizeof line, format, arguments) >= 0) {
        debug_write(flag, line);
    }
}

}  // namespace

void debug_print(const char* format, ...) {
    const int saved_errno = errno;
    if (debug_flag_is_on(debug_cfg_agent) != 0) {
        va_list arguments;
        va_start(arguments, format);
        print_line(debug_cfg_agent, format, arguments);
        va_end(arguments);
    }
    errno = saved_errno;
}

void debug_print_for(debug_flag flag, const char* format, ...) {
    const int saved_errno = errno;
    if (debug_flag_is_on(flag) != 0) {
        va_list arguments;
        va_start(arguments, format);
        print_line(flag, format, arguments);
        va_end(arguments);
    }
    errno = saved_errno;
}

uint32_t debug_initialise(event_manager* manager, void (*handler)(uint32_t action, uint32_t id, void* context)) {
    for (const flag_row& flag : flags) {
        const platform_status status =
            debug_flag_register(paths::debug_path, flag.id, flag.name, DEBUG_FLAG_TYPE, DEBUG_FLAG_LEVEL);
        if (status != PLATFORM_OK) {
            return status;
        }
    }
    return debug_event_register(manager, paths::debug_path, handler, nullptr);
}
