/// How a lost file is recreated.
#ifndef CONFIG_FILES_FILE_RECREATION_H
#define CONFIG_FILES_FILE_RECREATION_H

#include <cstddef>

struct vrf_node;

/// A line that only one VRF's file has.
struct vrf_file_line {
    const char* keyword;
    const char* value;
};

inline constexpr size_t vrf_file_line_max = 3;

/// Stores the lines of a VRF's file in their order. Returns their number.
size_t vrf_file_lines(const vrf_node& node, vrf_file_line (&lines)[vrf_file_line_max]);

/// Rebuilds the default server file from the parameter table. Returns 0 or -1.
int default_config_file_recreate();

/// Rebuilds a VRF's file from the default file, the VRF's own lines and its ports. Returns 0 or -1.
int vrf_config_file_recreate(const char* vrf_name);

#endif
