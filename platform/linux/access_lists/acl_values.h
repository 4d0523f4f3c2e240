/// Access lists in commits: each is the value of a path such as /access-lists/ipv4/NAME.
#ifndef LINUX_ACCESS_LISTS_ACL_VALUES_H
#define LINUX_ACCESS_LISTS_ACL_VALUES_H

#include <cstdint>
#include <string>
#include <string_view>

/// The paths of all lists begin with this.
inline constexpr std::string_view acl_list_tree = "/access-lists/";

inline constexpr char acl_name_form[] =
    "expected a name of 1 to 64 letters, digits, '_', '-' and '.', not beginning with '-' or '.'";

/// Lets commits change access lists. The subscribers of a list are notified during the commit that changes it: before the
/// items of the commit are applied if the list is set, after them if it is deleted.
void acl_values_start();
void acl_values_stop();

/// Returns the path of a list.
std::string acl_list_path(uint32_t family, std::string_view name);

/// Finds the family of the list with this path. Returns false if the path is not that of a list.
bool acl_family_of_path(std::string_view path, uint32_t& family);

#endif
