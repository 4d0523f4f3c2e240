/// Starts, restarts and stops of servers, collected during a commit.
///
/// When the platform announces a commit, the servers that it concerns wait for its end. Then systemd reads the units once,
/// one command stops and one restarts up to `server_batch_max` servers, and the result of every unit is queried. Until then
/// the VRFs are blocked, and a VRF whose server is not started stays so. Outside an announced commit nothing is postponed.
#ifndef VRF_SERVER_CHANGES_H
#define VRF_SERVER_CHANGES_H

#include <cstddef>
#include <optional>

#include "config_files/vrf_node.h"

inline constexpr size_t server_batch_max = 64;

/// Bracket an announced commit. The second makes the postponed changes; failures are reported as not in force.
void put_off_server_changes();
void carry_out_server_changes();

/// Postpones a restart, or a stop, and blocks the VRF meanwhile. The last request counts. Returns false if changes are not
/// being postponed, or if the VRF to be started has no node.
bool put_off_restart(const char* vrf_name);
bool put_off_stop(const char* vrf_name);

/// Postpones the daemon-reload. Returns false if changes are not being postponed.
bool put_off_unit_reload();

struct postponed_unit {
    bool active;   ///< the server runs, or is starting
    bool is_read;  ///< systemd has read the unit's present file, or will read it with the next start
};

/// Returns the state of a VRF's unit while changes are postponed. The first call, and the first call after servers were
/// stopped or restarted, query all units together. Returns nullopt if changes are not being postponed or if systemd does
/// not answer.
std::optional<postponed_unit> query_postponed_unit(const char* vrf_name);

/// Makes systemd read the units again. Returns 0, or -1 after reporting the failure; the reload is then due.
int reload_units();

/// Whether the last daemon-reload failed.
bool unit_reload_is_due();

/// Blocks the VRF until the end of the commit, because its lists or its server will change. Does nothing outside an
/// announced commit.
void block_until_changes_are_carried_out(vrf_node* node);

#endif
