/// The connection to the shelf manager, which announces reloads of the chassis.
#ifndef HOST_SHELF_LINK_H
#define HOST_SHELF_LINK_H

/// Creates the client in agent_handles.shelf_manager, registers its callbacks and starts connecting. Failures are logged: the
/// agent works without the shelf manager, but sessions are then not ended gracefully on a reload.
void connect_shelf_manager();

#endif
