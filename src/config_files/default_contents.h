/// What the files hold after a start, and how a lost file is made again.
#ifndef CONFIG_FILES_DEFAULT_CONTENTS_H
#define CONFIG_FILES_DEFAULT_CONTENTS_H

/// Prepares the default server and client files: made empty when missing or when this is a fresh start, kept after a
/// failure. Returns 0 or -1.
int prepare_default_files();

/// Writes the lines that every start has, in their fixed order, into both default files.
void write_initial_lines();

/// Builds the default server file anew from the parameter table. Returns 0 or -1.
int default_config_file_recreate();

/// Builds a VRF's file anew from the default file, the VRF's own lines and its ports. Returns 0 or -1.
int vrf_config_file_recreate(const char* vrf_name);

#endif
