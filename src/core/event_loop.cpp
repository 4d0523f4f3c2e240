#include "core/event_loop.h"

[[noreturn]] void run_event_loop(event_manager* manager) {
    for (;;) {
        event_manager_event event;
        // A failed wait leaves nothing to dispatch, and loses nothing either: pending events stay pending.
        if (event_manager_block(manager, &event) != -1) {
            event_manager_dispatch(manager, &event);
        }
    }
}
