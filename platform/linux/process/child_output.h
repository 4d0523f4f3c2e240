/// Work that may block, done by a child process with a time limit.
#ifndef LINUX_PROCESS_CHILD_OUTPUT_H
#define LINUX_PROCESS_CHILD_OUTPUT_H

#include <chrono>
#include <functional>
#include <string>

#include "platform/status.h"

/// Time limit for a query whose answer an operator is waiting for.
inline constexpr std::chrono::milliseconds child_output_limit{3000};

/// Runs `work` in a child process and stores what it writes to the descriptor it is given. `work` may execute a program;
/// its result is the child's exit status. Returns ETIMEDOUT if the child did not end in time (it has been killed, with
/// the processes of its group), EIO if its exit status was not 0, or an errno value; `output` is then unchanged.
platform_status child_output(const std::function<int(int fd)>& work, std::chrono::milliseconds limit,
                             std::string& output);

#endif
