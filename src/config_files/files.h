/// Small operations on whole files, and the path of a VRF's file.
#ifndef CONFIG_FILES_FILES_H
#define CONFIG_FILES_FILES_H

#include <cstddef>

/// Returns 1 if the file exists, 0 if not, and -1 if the path is null. A file that cannot be opened for another reason, such as
/// a lack of memory or descriptors, exists: it must not be created anew.
int file_exists(const char* path);

/// Returns whether there is a file of any kind at the path, or that cannot be determined. The file is not opened.
bool path_may_exist(const char* path);

/// Creates the directory (mode 0755; it may exist already) and an empty file in it. `file` is the whole path. Returns
/// 0, or -1 with errno.
int create_file_in_dir(const char* directory, const char* file);

/// Copies through the shell, so neither path may contain characters that are special to it. Returns 0 or -1; errno is
/// then meaningless, because the failure happened in the shell.
int copy_file(const char* source, const char* destination);

/// The path of a VRF's server file, cut if it does not fit into `size` bytes.
void vrf_config_file_path(const char* vrf_name, char* path, size_t size);

#endif
