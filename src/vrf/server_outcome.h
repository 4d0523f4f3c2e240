/// The consequences of an attempt to start or stop the server of a VRF.
#ifndef VRF_SERVER_OUTCOME_H
#define VRF_SERVER_OUTCOME_H

/// Reports to the platform whether the server is in the state that the command requested; `status` is run_shell_command's result.
/// Leaves errno alone.
void report_server(const char* vrf_name, const char* command, int status);

/// Whether run_shell_command's result for "systemctl stop" means that no server is left running. The unit may be
/// unknown to systemd.
bool nothing_was_left_running(int status);

/// The server was started: lists that could not be loaded before are tried again, and the VRF is unblocked.
void server_has_started(const char* vrf_name);

/// The server was not started; errno is the reason. The VRF stays blocked.
void server_has_not_started(const char* vrf_name);

/// The server was stopped; the VRF is unblocked.
void server_has_stopped(const char* vrf_name);

/// The server was not stopped; errno, which is preserved, is the reason.
void server_has_not_stopped(const char* vrf_name);

#endif
