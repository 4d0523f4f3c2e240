/// Shell commands whose failure is judged by errno.
#ifndef VRF_SHELL_COMMAND_H
#define VRF_SHELL_COMMAND_H

/// Runs a command through the shell and waits for it. It has failed when its status is not zero and errno is set, which
/// is deliberately not cleared before: systemctl also ends with a status of its own when it has done what was asked.
bool shell_command_failed(const char* command);

#endif
