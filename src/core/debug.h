/// Debug flags and debug prints.
#ifndef CORE_DEBUG_H
#define CORE_DEBUG_H

#include <cstdint>

enum debug_flag : uint32_t {
    debug_server_l1 = 1,
    debug_server_l2 = 2,
    debug_server_l3 = 3,
    debug_client_l1 = 4,
    debug_client_l2 = 5,
    debug_client_l3 = 6,
    debug_cfg_agent = 8,  ///< governs every debug print of this program
    debug_syslog_proxy = 9,
    debug_telemetry = 10,
};

/// Prints one line if the "cfg-agent" flag is on. Leaves errno unchanged.
void debug_print(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Prints one line if the given flag is on. Leaves errno unchanged.
void debug_print_for(debug_flag flag, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Registers every flag in the order of the ids, then `handler`, which is called when one is switched. Returns the
/// first failure.
uint32_t debug_initialise(struct event_manager* manager, void (*handler)(uint32_t action, uint32_t id, void* context));

#endif
