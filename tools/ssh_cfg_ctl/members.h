/// The members of the object in a JSON file, with their places, for messages about a configuration.
#ifndef SSH_CFG_CTL_MEMBERS_H
#define SSH_CFG_CTL_MEMBERS_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

struct ctl_member {
    std::string name;
    size_t line = 0;            ///< from 1
    size_t column = 0;          ///< from 1, in bytes
    size_t begin = 0;           ///< offset of the name, or of the comma before it
    size_t value = 0;           ///< offset of the value
    size_t end = 0;             ///< offset behind the value
    bool is_duplicate = false;  ///< an earlier member has the same name
};

/// Finds the members of the outermost object, in their order. Stops at the first syntax error.
std::vector<ctl_member> ctl_members(std::string_view text);

/// Replaces the duplicate members by blanks, so that the others keep their places.
std::string ctl_without_duplicates(std::string_view text, const std::vector<ctl_member>& members);

/// Returns "line 3, column 5".
std::string ctl_place_text(const ctl_member& member);

#endif
