/// How a lost file is made again.
#ifndef CONFIG_FILES_FILE_RECREATION_H
#define CONFIG_FILES_FILE_RECREATION_H

/// Builds the default server file anew from the parameter table. Returns 0 or -1.
int default_config_file_recreate();

/// Builds a VRF's file anew from the default file, the VRF's own lines and its ports. Returns 0 or -1.
int vrf_config_file_recreate(const char* vrf_name);

#endif
