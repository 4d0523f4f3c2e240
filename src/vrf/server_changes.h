/// Starts, restarts and stops of servers, gathered over a commit.
///
/// When the platform announces a commit, the servers that it concerns wait for its end. Then systemd reads the units once,
/// one command stops and one restarts up to `server_batch_max` servers, and every unit is asked for the result. Until then
/// the VRFs are blocked, and a VRF whose server is not started stays so. Outside of an announced commit nothing is put off.
#ifndef VRF_SERVER_CHANGES_H
#define VRF_SERVER_CHANGES_H

#include <cstddef>

#include "config_files/vrf_node.h"

inline constexpr size_t server_batch_max = 64;

/// Bracket an announced commit. The second carries out what was put off; what fails is reported as not in force.
void put_off_server_changes();
void carry_out_server_changes();

/// Puts off a restart, or a stop, and blocks the VRF meanwhile. The last request counts. Returns false if nothing is put
/// off now, or if the VRF to be started has no node.
bool put_off_restart(const char* vrf_name);
bool put_off_stop(const char* vrf_name);

/// Puts off the reading of the units. Returns false if nothing is put off now.
bool put_off_unit_reload();

/// Lets systemd read the units again. Returns 0, or -1 after the failure was reported; it is due from then on.
int reload_units();

/// Whether the last attempt to let systemd read the units failed.
bool unit_reload_is_due();

/// Blocks the VRF until the end of the commit, because its lists or its server are going to change. Does nothing outside of
/// an announced commit.
void block_until_changes_are_carried_out(vrf_node* node);

#endif
