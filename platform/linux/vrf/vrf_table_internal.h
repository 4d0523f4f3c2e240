/// VRF names and the VRF table's contents.
#ifndef LINUX_VRF_VRF_TABLE_INTERNAL_H
#define LINUX_VRF_VRF_TABLE_INTERNAL_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/vrf_table.h"

enum {
    VRF_NAME_MAX = 32,            ///< characters
    VRF_ID_DEFAULT = 0x60000000,  ///< the default VRF; the others follow in the order in which they were asked for
    VRF_ID_MAX = 0x6fffffff
};

inline constexpr char vrf_default_name[] = "default";
inline constexpr char namespace_name_prefix[] = "vrf-";

/// 1 to 32 letters, digits, '_', '-' and '.', the first one neither '-' nor '.'.
bool vrf_name_is_valid(std::string_view name);

struct vrf_table_entry {
    std::string name;  ///< without prefix
    uint32_t id;
};

/// Every VRF that has a number, the default one first, then by number.
platform_status vrf_table_list(std::vector<vrf_table_entry>& entries);

#endif
