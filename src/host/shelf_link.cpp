#include "host/shelf_link.h"

#include "core/agent_state.h"
#include "core/debug.h"
#include "core/log.h"
#include "host/reload.h"
#include "host/trace_points.h"

namespace {

void shelf_connected(shelf_manager* shelf, void*) {
    debug_print("Received connect callback from shelf-mgr, will register for system reload notification ");
    trace_event(host_trace_shelf_connected);
    const platform_status status = shelf_manager_register_reload(shelf);
    if (status != PLATFORM_OK) {
        debug_print("Error:=%d, sm registration for reload notification failed, CAPI will retry",
                    static_cast<int>(status));
        trace_error(host_trace_shelf_register, {status});
    }
}

void shelf_disconnected(shelf_manager*, void*) {
    debug_print("Received disconnect callback from shelf-mgr");
    trace_event(host_trace_shelf_disconnected);
}

}  // namespace

void connect_shelf_manager() {
    platform_status status =
        shelf_manager_create(event_manager_loop_handle(agent_handles.event_manager), &agent_handles.shelf_manager);
    if (status != PLATFORM_OK) {
        debug_print("Error:=%s(0x%lx), SM handle create failed", platform_status_text(status),
                    static_cast<unsigned long>(status));
        log_status(WARN_ERRNO, status, "SM handle create failed");
        trace_error(host_trace_shelf_create, {status});
        return;
    }
    shelf_manager_set_reload_callback(agent_handles.shelf_manager, reload_notice_handler, nullptr);
    shelf_manager_set_connect_callback(agent_handles.shelf_manager, shelf_connected, nullptr);
    shelf_manager_set_disconnect_callback(agent_handles.shelf_manager, shelf_disconnected, nullptr);
    status = shelf_manager_connect(agent_handles.shelf_manager);
    if (status != PLATFORM_OK) {
        debug_print(
            "Error:=%s(0x%lx), Failed to register for upgrade notification/Sessions might not shutdowngracefully during system upgrades",
            platform_status_text(status), static_cast<unsigned long>(status));
        log_status(
            WARN_ERRNO, status,
            "Failed to register for upgrade notification/Sessions might not shutdown gracefully during system upgrades");
        trace_error(host_trace_shelf_connect, {status});
    }
}
