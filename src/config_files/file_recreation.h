/// How a lost file is recreated.
#ifndef CONFIG_FILES_FILE_RECREATION_H
#define CONFIG_FILES_FILE_RECREATION_H

/// Rebuilds the default server file from the parameter table. Returns 0 or -1.
int default_config_file_recreate();

/// Rebuilds a VRF's file from the default file, the VRF's own lines and its ports. Returns 0 or -1.
int vrf_config_file_recreate(const char* vrf_name);

#endif
