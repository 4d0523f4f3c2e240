/// The units of the VRFs' servers as systemd sees them.
#ifndef VRF_UNIT_STATES_H
#define VRF_UNIT_STATES_H

#include <cstdint>
#include <string>
#include <vector>

struct unit_state {
    std::string vrf_name;
    std::string active_state;   ///< systemctl(1), ActiveState: "active", "failed", ...
    int32_t main_process;       ///< 0 if there is none
    uint64_t started;           ///< CLOCK_MONOTONIC in microseconds; UINT64_MAX if unknown
    bool needs_reload = false;  ///< systemd has not read the unit's present file
};

/// Whether the server is running. One that systemd keeps restarting is not.
bool is_running(const unit_state& unit);

/// Whether there is nothing to stop.
bool is_stopped(const unit_state& unit);

/// Queries with one command all units that systemd has loaded, or those named (separated by spaces), whether loaded or
/// not. Returns 0, or -1 with errno. May throw std::bad_alloc.
int read_unit_states(std::vector<unit_state>* units, const char* names = nullptr);

/// Queries those of the named units ("NAME.service", separated by spaces) that systemd has loaded, but reads only
/// `active_state`, which takes systemd a tenth of the time. Returns and throws like read_unit_states.
int read_active_states(std::vector<unit_state>* units, const char* names);

/// The state of a VRF's unit, or null.
const unit_state* find_unit_state(const std::vector<unit_state>& units, const char* vrf_name);

#endif
