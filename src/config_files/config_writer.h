/// Writers of a keyword's line in the default server file, in every VRF's file, and in the client's file.
#ifndef CONFIG_FILES_CONFIG_WRITER_H
#define CONFIG_FILES_CONFIG_WRITER_H

#include <cstdint>

/// Event of a write that sets a value; an event with bit 4 removes the keyword's line.
inline constexpr uint32_t event_set_value = 3;
inline constexpr uint32_t event_delete_value = 4;

/// Writes the keyword into the default file and, with `allvrf`, into every VRF's file, and restarts the servers of
/// those VRFs. `value` may be null when deleting. Returns 0, or -1 with errno.
int update_config_files_restart(uint32_t event, const char* keyword, const char* value, uint32_t allvrf);

/// The same for a keyword that has one line per value of a comma-separated list ("HostKey ").
int update_config_files_multiple_restart(uint32_t event, const char* keyword, const char* value, uint32_t allvrf);

/// Writes the keyword into the client's file, which is created if it is missing. Failures are only reported.
void update_client_config_file(uint32_t event, const char* keyword, const char* value);

/// Changes one line of one VRF's file; `new_line` as for update_string_in_file. Returns 0, or -1 with errno.
int update_vrf_config_file(uint32_t event, const char* vrf_name, const char* keyword, const char* value,
                           uint32_t* change);

/// Removes a VRF's file; a failure is only traced.
void delete_vrf_config_file(const char* vrf_name);

/// Reports to the platform that a file is not as configured, with errno as the reason. Returns -1; errno stays.
int report_file_not_in_force(const char* path);

#endif
