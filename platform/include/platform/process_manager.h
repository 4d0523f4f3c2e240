/// Process manager: what the platform knows about this process.
#ifndef PLATFORM_PROCESS_MANAGER_H
#define PLATFORM_PROCESS_MANAGER_H

#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

/// A process with this role does not have to wait to become primary.
enum { PROCESS_ROLE_PRIMARY = 1 };

/// This instance's role.
uint32_t process_manager_role(void);

/// Tells the platform that others may rely on this process from its first wait for an event on, or from its wait to become
/// primary. May be called again.
void process_manager_ready(void);

/// The process has made progress. Long work reports this at each step, so that the platform can distinguish a busy
/// process from one that hangs. Leaves errno alone.
void process_manager_progress(void);

/// Called at short intervals while the process waits for something that ends in bounded time, such as a command, so the
/// platform can do other work meanwhile. Does not count as progress, because a process that only waits may be hung.
/// Preserves errno.
void process_manager_waiting(void);

/// Reports progress, and describes the current step of long work to people who are waiting for it: `work` in words,
/// such as "restarting servers", with `done` of `total` items done. The text is copied.
void process_manager_step(const char* work, uint32_t done, uint32_t total);

/// Blocks until this node is the primary one. Returns 0, or -1 when the wait failed.
int process_manager_wait_primary(void);

/// Number of starts of this process since the last clean stop: 1 on the first start, 2 and above after failures; 0 when
/// the platform does not count.
uint32_t process_manager_respawn_count(void);

#ifdef __cplusplus
}
#endif

#endif
