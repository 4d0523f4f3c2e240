/// Starting and stopping a VRF's server, and preparing its file.
#ifndef VRF_SERVER_LIFECYCLE_H
#define VRF_SERVER_LIFECYCLE_H

#include <cstdint>

#include "config_files/vrf_node.h"

/// Starts or restarts (`start` = 1) or stops (0) the unit of a VRF, blocking the VRF in management-plane protection
/// during a restart. Returns 0 or -1; a VRF whose server could not be started stays blocked. Within an announced commit it
/// returns 0, and the server waits for the end (server_changes.h); this holds for the next two as well.
int ssh_process_restart(uint32_t start, const char* vrf_name);

/// Stops the unit of a VRF even if its file is gone. Returns 0 or -1.
int ssh_process_stop(const char* vrf_name);

/// Starts or restarts the server of a node, which counts as started only if a unit was started. Returns 0 or -1.
int restart_server_of(vrf_node* node);

/// Suspends (`held`) or resumes the start of servers. Starting one meanwhile succeeds without doing anything; the caller
/// that resumes starts them all.
void hold_servers_down(bool held);
bool servers_are_held_down();

/// Ensures that the VRF's file exists and is not stale (checked only for a new node), and adds the line of `keyword`
/// and `value` if `add_line` is 1. Sets `*change` if the file changed. Returns 0 or -1.
int prepare_vrf_file(const char* vrf_name, int add_line, const char* keyword, const char* value, uint32_t* change,
                     int new_node);

#endif
