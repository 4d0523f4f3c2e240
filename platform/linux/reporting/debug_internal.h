/// Lists the debug flags and turns them on and off.
#ifndef LINUX_REPORTING_DEBUG_INTERNAL_H
#define LINUX_REPORTING_DEBUG_INTERNAL_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/debug.h"

struct debug_flag_state {
    std::string path;
    std::string name;
    uint32_t id;
    bool on;
};

/// All registered flags, by id.
std::vector<debug_flag_state> debug_flag_list();

/// Switches a flag, named alone ("cfg-agent") or with its path ("/debug/ssh/cfg-agent"), and calls the handlers of its
/// path when that changed it. To be called on the event loop's thread. ENOENT for an unknown name.
platform_status debug_flag_set(const std::string& name, bool on);

#endif
