#include "core/event_loop.h"

[[noreturn]] void run_event_loop(event_manager* manager) {
    for (;;) {
        event_manager_event event;
        // A failed wait has nothing to dispatch; what was to come is still to come.
        if (event_manager_block(manager, &event) != -1) {
            event_manager_dispatch(manager, &event);
        }
    }
}
