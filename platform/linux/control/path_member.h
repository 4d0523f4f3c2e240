/// The path that a request names.
#ifndef LINUX_CONTROL_PATH_MEMBER_H
#define LINUX_CONTROL_PATH_MEMBER_H

#include <string>
#include <string_view>
#include <vector>

#include "control_protocol/json_text.h"

struct control_path {
    std::string path;       ///< absolute, unless nothing has this end
    bool is_short = false;  ///< the request gives only its end
    control_json
        problem;  ///< the answer to a request that names no path, or an ambiguous one; null if there is no problem
};

/// Reads the member "path". A short path is replaced by what it means, and keeps a slash at its end. The answer to an ambiguous
/// one lists what it may mean, also as "candidates".
control_path control_item_path(const control_json& request);         ///< of something that has a value
control_path control_folder_path(const control_json& request);       ///< of something that has other paths below it
control_path control_operational_path(const control_json& request);  ///< of something that can be shown

/// With a slash at the end that of a folder, otherwise that of an item.
control_path control_item_or_folder_path(const control_json& request);

#endif
