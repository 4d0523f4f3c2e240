/// The states of the servers' units according to systemd.
#ifndef LINUX_STATUS_UNIT_STATES_H
#define LINUX_STATUS_UNIT_STATES_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/status.h"

struct server_unit_state {
    std::string load;        ///< systemd's LoadState: "loaded", "not-found", ...
    std::string active;      ///< ActiveState: "active", "failed", ...
    std::string sub;         ///< SubState: "running", "dead", "auto-restart", ...
    std::string result;      ///< Result: "success", "exit-code", ...
    pid_t main_process = 0;  ///< 0 if there is none
};

/// By VRF name.
using server_unit_states = std::map<std::string, server_unit_state, std::less<>>;

/// The name of a VRF's unit: "sshd_service_NAME.service".
std::string server_unit_name(std::string_view vrf_name);

/// Queries systemd, once for all units, for at most three seconds (ETIMEDOUT). The result includes units that do not exist.
platform_status server_unit_states_query(const std::vector<std::string>& vrf_names, server_unit_states& units);

/// Parses systemctl's answer.
server_unit_states server_unit_states_parse(std::string_view text);

/// Whether the unit's server is running, according to systemd.
bool server_unit_runs(const server_unit_state& unit);

#endif
