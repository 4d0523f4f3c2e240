/// The record of servers that do not yet run with their current files.
///
/// It is written before the first file of a VRF is replaced, and removed when every server has been restarted. What a
/// process leaves behind when it dies in between tells the next one which restarts are due.
#ifndef CONFIG_FILES_RESTART_RECORD_H
#define CONFIG_FILES_RESTART_RECORD_H

#include <cstdint>

/// Called before the file is replaced. If it belongs to a VRF, the restart of its server is due afterwards. Returns 0, or
/// -1 with errno if this cannot be recorded; the file must then not be replaced.
int note_file_change(const char* path);

/// The VRF's server now runs with its current file, or no longer exists.
void note_restart_done(const char* vrf_name);

/// Bracket a walk through the files of all VRFs, which is recorded once for all of them. The first returns 0, or -1 with
/// errno and no walk begun. The second leaves errno alone.
int begin_restart_walk();
void end_restart_walk();

/// Start-up: takes over the record of an earlier process. Its restarts stay recorded until they are made or dropped.
void take_over_restart_record();

/// Whether a restart is due for a server started at `started` (CLOCK_MONOTONIC, microseconds).
bool restart_is_due(const char* vrf_name, uint64_t started);

/// Drops the remaining restarts of the earlier process after every server has been examined.
void drop_earlier_restarts();

#endif
