/// Shell commands that the platform takes over.
#ifndef PLATFORM_SHELL_COMMANDS_H
#define PLATFORM_SHELL_COMMANDS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Offers the platform a shell command that the agent is about to run. Returns 1 if the platform has taken it: then it is
/// not run, and `*status` is what waiting for the shell would have stored. Returns 0 if the agent is to run it. A platform
/// takes the commands of a copy of the agent that must not act on the machine. Leaves errno alone.
uint32_t platform_take_command(const char* command, int* status);

#ifdef __cplusplus
}
#endif

#endif
