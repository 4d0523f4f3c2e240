/// The lock that prevents a second agent on the node.
#ifndef LINUX_PROCESS_NODE_LOCK_H
#define LINUX_PROCESS_NODE_LOCK_H

/// Makes this process the node's only agent, until it ends. Returns 0, also when it is that already; EBUSY when another
/// process is, which has been said on standard error with that process's number; or another errno value, reported there
/// too.
int node_lock_take();

/// Gives the lock back, as the end of the process does.
void node_lock_release();

#endif
