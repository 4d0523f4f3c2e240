/// Commands for systemd, whose failure is determined by errno.
#ifndef VRF_SHELL_COMMAND_H
#define VRF_SHELL_COMMAND_H

/// Runs a systemctl command through the shell and waits for it. It has failed if its status is non-zero and errno is
/// set. errno is deliberately not cleared before: systemctl may end with a non-zero status although it was successful.
/// `*status`, unless null, receives run_shell_command's result.
bool shell_command_failed(const char* command, int* status = nullptr);

#endif
