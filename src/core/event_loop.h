/// The event loop, where the agent spends its life.
#ifndef CORE_EVENT_LOOP_H
#define CORE_EVENT_LOOP_H

#include "platform/event_manager.h"

/// Waits for events and dispatches them forever.
[[noreturn]] void run_event_loop(event_manager* manager);

#endif
