/// The path in a request.
#ifndef LINUX_CONTROL_PATH_MEMBER_H
#define LINUX_CONTROL_PATH_MEMBER_H

#include <string>
#include <string_view>
#include <vector>

#include "control_protocol/json_text.h"

struct control_path {
    std::string path;       ///< absolute, unless the end in the request matches no path or several paths
    bool is_short = false;  ///< the request contains only the end of the path
    control_json problem;   ///< the answer to a request with a missing or ambiguous path; null if there is no problem
};

/// Reads the member "path" and replaces a short path by the absolute path that it stands for; a slash at its end is kept.
/// The answer to an ambiguous path lists all matches in its message and in "candidates".
control_path control_item_path(const control_json& request);         ///< the path of an item, which has a value
control_path control_folder_path(const control_json& request);       ///< a path with other paths below it
control_path control_operational_path(const control_json& request);  ///< the path of operational data

/// Reads the path of a folder if it ends in a slash, otherwise the path of an item.
control_path control_item_or_folder_path(const control_json& request);

#endif
