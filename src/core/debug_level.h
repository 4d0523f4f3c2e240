/// How the debug flags affect the LogLevel of servers and clients.
#ifndef CORE_DEBUG_LEVEL_H
#define CORE_DEBUG_LEVEL_H

#include <cstdint>

/// Handler of the debug flags: `action` is DEBUG_ACTION_ON or DEBUG_ACTION_OFF, `id` a debug_flag. Sets LogLevel and
/// writes it; ignores flags other than the levels of the server and the client.
void debug_level_handler(uint32_t action, uint32_t id, void* context);

/// Start-up, once the configuration has been applied: sets LogLevel as the flags and the configured logging require,
/// without writing it.
void restore_log_levels();

#endif
