/// The settings of the running servers, compared by the launcher with those they would be started with now.
#ifndef LINUX_ENFORCEMENT_SERVER_SETTINGS_H
#define LINUX_ENFORCEMENT_SERVER_SETTINGS_H

#include <string>
#include <string_view>

/// The names of the settings in which the VRF's running server differs, separated by commas; empty if there are none or if
/// that is unknown. The first call queries the launcher about all servers, which takes milliseconds, at most ten seconds.
/// Throws std::bad_alloc.
std::string server_settings_difference(std::string_view vrf_name);

/// Returns the reason why the launcher did not answer, or an empty string if it answered or was not queried.
std::string server_settings_failure();

/// Discards the launcher's answer, so that the next call queries the launcher again.
void server_settings_forget();

#endif
