/// Child processes with a time limit.
#ifndef PLATFORM_COMMON_CHILD_PROCESS_H
#define PLATFORM_COMMON_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>

/// In a new child: unblocks all signals and makes the kernel kill the child when its parent ends. Returns false if the
/// parent has ended already or the kernel refuses.
bool child_process_prepare(pid_t parent);

/// Waits until a child has ended, without reaping it. Returns false at the deadline.
bool child_process_ends_before(pid_t child, std::chrono::steady_clock::time_point deadline);

/// Waits for a child, reaps it and returns its wait status; -1 if there is no such child.
int child_process_reap(pid_t child);

#endif
