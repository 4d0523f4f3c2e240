/// The systemd unit of a VRF's server.
#ifndef VRF_SERVICE_UNIT_H
#define VRF_SERVICE_UNIT_H

#include <cstddef>

/// Writes the unit and its environment file for the given prefixed VRF name ("vrf-" + NAME) and reloads systemd.
/// Returns 0 or -1.
int create_sshd_service_config_file(const char* prefixed_name);

/// Whether both files begin with the text that they would be given now. Leaves errno undefined.
bool sshd_service_config_file_is_current(const char* prefixed_name);

/// Removes both files; a failure is only traced.
void remove_sshd_service_config_file(const char* prefixed_name);

/// The paths of a VRF's unit and environment file (name without prefix).
void service_unit_path(const char* vrf_name, char* path, size_t size);
void environment_file_path(const char* vrf_name, char* path, size_t size);

#endif
