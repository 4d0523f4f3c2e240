/// What the server's settings need beyond their rows: the logging item, and the values of port forwarding.
#ifndef APPLIERS_SERVER_SETTINGS_H
#define APPLIERS_SERVER_SETTINGS_H

#include <cstdint>

#include "platform/datastore_backend.h"

struct setting_row;

/// 1 while the logging item exists; together with the debug flags it determines the servers' LogLevel.
extern uint32_t server_logging_configured;

/// Writes LogLevel, whatever the item's number is, unless a debug level determines it. Returns 0.
platform_status sshd_apply_logging(const datastore_change* change, const datastore_path_components* components);

/// Returns 1 for a value other than 0 and 1 and for an event that neither sets nor deletes, otherwise 0.
platform_status check_port_forwarding(const datastore_change& change);

/// "local" or "no"; the default if deleted.
const char* forwarding_or_default(const setting_row& row, const uint32_t* value);

#endif
