/// The operational data that can be shown.
#ifndef LINUX_CONTROL_OPERATIONAL_ITEMS_H
#define LINUX_CONTROL_OPERATIONAL_ITEMS_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

struct operational_item {
    std::string_view path;
    const char* meaning;
};

/// In byte order of the paths.
std::span<const operational_item> control_operational_items();

/// The paths of those items that end with the components of `end`.
std::vector<std::string> control_operational_meanings(std::string_view end);

#endif
