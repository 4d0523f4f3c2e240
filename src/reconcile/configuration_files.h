/// Comparison of the configuration files of servers and client with the tables that determine them.
#ifndef RECONCILE_CONFIGURATION_FILES_H
#define RECONCILE_CONFIGURATION_FILES_H

#include <string>

#include "config_files/vrf_node.h"
#include "reconcile/findings.h"

// All functions may throw std::bad_alloc.

/// The server's default file: rewrites lines that differ. Returns whether the file is correct now.
bool compare_default_file(comparison& run);

/// The client's file, in the same way.
void compare_client_file(comparison& run);

/// In what a file differs from what the VRF's server file should be ("differs in LoginGraceTime"), or why it cannot be read;
/// empty if in nothing.
std::string server_file_difference(const vrf_node& node, const char* path);

/// The files of all VRFs: one that differs in any keyword is replaced by a copy of the default file with the VRF's own
/// lines. Their servers then have to be restarted.
void compare_vrf_files(comparison& run);

#endif
