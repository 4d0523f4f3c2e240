/// The items of operational data that can be shown.
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

/// Returns all items, in byte order of their paths.
std::span<const operational_item> control_operational_items();

/// Returns the paths of the items that end with the components of `end`.
std::vector<std::string> control_operational_meanings(std::string_view end);

#endif
