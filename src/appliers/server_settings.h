/// Appliers of the server's single-valued settings: each turns its item's value into one keyword line of every VRF's
/// server file.
#ifndef APPLIERS_SERVER_SETTINGS_H
#define APPLIERS_SERVER_SETTINGS_H

#include <cstdint>

#include "platform/datastore_backend.h"

/// 1 while the logging item exists; decides with the debug flags what LogLevel the servers have.
extern uint32_t server_logging_configured;

/// All take a number item's change and return 0, whatever became of the file; its edit reports failures itself.
platform_status sshd_apply_logging(const datastore_change* change, const datastore_path_components* components);
platform_status sshd_apply_dscp(const datastore_change* change, const datastore_path_components* components);
platform_status sshd_apply_timeout(const datastore_change* change, const datastore_path_components* components);
platform_status sshd_apply_max_auth_limit(const datastore_change* change, const datastore_path_components* components);
platform_status sshd_apply_rate_limit(const datastore_change* change, const datastore_path_components* components);
platform_status sshd_apply_session_limit(const datastore_change* change, const datastore_path_components* components);
platform_status sshd_apply_tcp_window_scale(const datastore_change* change,
                                            const datastore_path_components* components);
platform_status sshd_apply_rekey_time(const datastore_change* change, const datastore_path_components* components);
platform_status sshd_apply_rekey_volume(const datastore_change* change, const datastore_path_components* components);

/// Also 1 for a value other than 0 and 1, and for an event that neither sets nor deletes; the file is then untouched.
platform_status sshd_apply_port_forwarding(const datastore_change* change, const datastore_path_components* components);

#endif
