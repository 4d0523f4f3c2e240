/// The process manager's state, for the operator.
#ifndef LINUX_PROCESS_PROCESS_MANAGER_INTERNAL_H
#define LINUX_PROCESS_PROCESS_MANAGER_INTERNAL_H

#include <cstdint>
#include <string>

#include "platform/process_manager.h"
#include "platform/status.h"

struct process_status {
    uint32_t role;           ///< PROCESS_ROLE_
    uint32_t respawn_count;  ///< as process_manager_respawn_count
    bool ready;              ///< readiness has been reported
    uint64_t started;        ///< seconds since the epoch
};

process_status process_manager_status();

/// Counts this start, once a process: the number kept in the runtime directory goes up by one. The service's unit removes
/// it after a clean stop.
void process_manager_count_start();

/// Tells the service manager that the agent is ready, if it has said so: on a primary node at its first wait for an event,
/// when what is configured is in force; on a standby as soon as it waits to become primary.
void process_manager_notify_ready();

/// What the process is working on, as process_manager_step told it last.
struct process_step {
    std::string work;  ///< empty if nothing was told
    uint32_t done = 0;
    uint32_t total = 0;
};

const process_step& process_manager_current_step();

/// Long work begins or ends, so that nothing is known of its steps.
void process_manager_forget_step();

/// Has `work` done at each report of progress, which may come from within any handler of the agent, but never from within
/// `work` itself. errno is kept. Null ends that.
void process_manager_at_progress(void (*work)());

/// For tests: resets the count and releases the lock, as the end of the process does.
void process_manager_reset();

#endif
