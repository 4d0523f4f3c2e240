/// Small operations on whole files, and the path of a VRF's file.
#ifndef CONFIG_FILES_FILES_H
#define CONFIG_FILES_FILES_H

#include <cstddef>

/// 1 when the file can be opened for reading, 0 when not, -1 for an absent path.
int file_exists(const char* path);

/// Makes the directory (mode 0755, an existing one is fine) and the file in it, which is emptied. `file` is a whole path.
/// Returns 0, or -1 with errno.
int create_file_in_dir(const char* directory, const char* file);

/// Copies through the shell, so both paths must be free of characters that mean something to it. Returns 0 or -1; errno
/// then tells nothing, because the shell has had the failure.
int copy_file(const char* source, const char* destination);

/// The path of a VRF's server file. A path that does not fit `size` bytes is cut.
void vrf_config_file_path(const char* vrf_name, char* path, size_t size);

#endif
