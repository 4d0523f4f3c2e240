/// The connection to the shelf manager, which announces reloads of the chassis.
#ifndef HOST_SHELF_LINK_H
#define HOST_SHELF_LINK_H

/// Creates the client in agent.shelf_manager, gives it its callbacks and lets it connect. Failures are logged: without it
/// the agent works, but sessions are not ended gracefully.
void connect_shelf_manager();

#endif
