/// Shelf manager: announces a reload of the chassis and waits for the acknowledgement.
#ifndef PLATFORM_SHELF_MANAGER_H
#define PLATFORM_SHELF_MANAGER_H

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

struct shelf_manager;

typedef void (*shelf_manager_callback)(struct shelf_manager* shelf, void* context);

/// Creates a client on the event manager's underlying loop (event_manager_loop_handle). Valid for the process's life.
platform_status shelf_manager_create(void* loop_handle, struct shelf_manager** shelf);

void shelf_manager_set_reload_callback(struct shelf_manager* shelf, shelf_manager_callback callback, void* context);
void shelf_manager_set_connect_callback(struct shelf_manager* shelf, shelf_manager_callback callback, void* context);
void shelf_manager_set_disconnect_callback(struct shelf_manager* shelf, shelf_manager_callback callback, void* context);

/// Starts to connect; the connect callback follows. The client reconnects by itself.
platform_status shelf_manager_connect(struct shelf_manager* shelf);

/// Registers for reload notices. The client repeats a failed registration by itself.
platform_status shelf_manager_register_reload(struct shelf_manager* shelf);

/// Acknowledges the notice, so that the reload can proceed.
platform_status shelf_manager_acknowledge_reload(struct shelf_manager* shelf);

#ifdef __cplusplus
}
#endif

#endif
