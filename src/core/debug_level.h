/// What the debug flags do to the LogLevel of servers and clients.
#ifndef CORE_DEBUG_LEVEL_H
#define CORE_DEBUG_LEVEL_H

#include <cstdint>

/// Handler of the debug flags: `action` DEBUG_ACTION_ON or DEBUG_ACTION_OFF, `id` a debug_flag. Sets the LogLevel and
/// writes it; flags other than the server's and the client's levels are none of its business.
void debug_level_handler(uint32_t action, uint32_t id, void* context);

#endif
