/// The call that completes a word that the operator has begun to type. Request members: `what` ("item", "folder",
/// "operational", "value" or "vrf"), `word` (the part that has been typed so far) and, for a value, `path` (the path of
/// its item). The answer's data is an array of candidates, all of which begin with `word`.
#include <algorithm>
#include <set>
#include <vector>

#include "linux/control/calls_internal.h"
#include "linux/control/known_names.h"
#include "linux/control/operational_items.h"
#include "linux/datastore/schema.h"
#include "linux/datastore/schema_children.h"
#include "linux/datastore/service_values.h"
#include "linux/datastore/short_path.h"

namespace {

using candidate_set = std::set<std::string>;

/// Returns the paths one component below `folder`, an absolute path that ends in '/'.
std::vector<std::string> paths_below(const std::string& folder) {
    std::vector<std::string> paths;
    for (const std::string& child : schema_children(folder)) {
        if (!child.starts_with('*')) {
            paths.push_back(folder + child);
            continue;
        }
        for (const std::string& name : control_known_names(folder)) {
            paths.push_back(folder + name + child.substr(1));
        }
    }
    for (const std::string& child : datastore_service_children(folder, true)) {
        paths.push_back(folder + child);
    }
    return paths;
}

/// Appends the paths of all items below `folder`, with the known names in place of wildcards. A folder with no known name
/// is appended itself. If `folders_only` is set, appends the paths of all folders instead.
void collect_paths(const std::string& folder, bool folders_only, std::vector<std::string>& paths) {
    const std::vector<std::string> below = paths_below(folder);
    if (below.empty() || folders_only) {
        paths.push_back(folder);
    }
    for (const std::string& path : below) {
        if (path.ends_with('/')) {
            collect_paths(path, folders_only, paths);
        } else if (!folders_only) {
            paths.push_back(path);
        }
    }
}

/// Extends an absolute path, or the short path of a folder, by at most one component, and completes a short path of an
/// item to its last component.
candidate_set complete_path(const std::string& word, bool folders_only) {
    candidate_set candidates;
    if (word.starts_with('/')) {
        for (const std::string& path : paths_below(word.substr(0, word.rfind('/') + 1))) {
            if (path.starts_with(word) && (!folders_only || path.ends_with('/'))) {
                candidates.insert(path);
            }
        }
        return candidates;
    }
    std::vector<std::string> paths;
    collect_paths("/", folders_only, paths);
    const auto slashes = std::count(word.begin(), word.end(), '/');
    for (const std::string& path : paths) {
        const std::string end = short_path_of(path, word);
        const bool is_further_down = std::count(end.begin(), end.end(), '/') > slashes + 1;
        if (!end.empty() && !(folders_only && is_further_down)) {
            candidates.insert(end);
        }
    }
    return candidates;
}

candidate_set complete_item(const control_json& /*request*/, const std::string& word) {
    return complete_path(word, false);
}

candidate_set complete_folder(const control_json& /*request*/, const std::string& word) {
    return complete_path(word, true);
}

/// Returns the shortest suffix of `path` that begins with `word` and identifies only this item, or an empty string.
std::string operational_end(std::string_view path, const std::string& word) {
    for (size_t start = path.rfind('/'); start != 0 && start != std::string_view::npos;
         start = path.rfind('/', start - 1)) {
        const std::string_view end = path.substr(start + 1);
        if (end.starts_with(word) && control_operational_meanings(end).size() == 1) {
            return std::string(end);
        }
    }
    return {};
}

candidate_set complete_operational(const control_json& /*request*/, const std::string& word) {
    candidate_set candidates;
    for (const operational_item& item : control_operational_items()) {
        const std::string candidate = word.starts_with('/') ? std::string(item.path) : operational_end(item.path, word);
        if (!candidate.empty() && candidate.starts_with(word)) {
            candidates.insert(candidate);
        }
    }
    return candidates;
}

/// Returns all values of an item, or nothing if there are more than a few.
candidate_set values_of(const schema_row& row) {
    constexpr int64_t few = 20;
    switch (row.form.kind) {
        case schema_kind::flag:
            return {"false", "true"};
        case schema_kind::presence:
            return {"true"};
        case schema_kind::number:
            break;
        default:
            return {};
    }
    candidate_set values;
    for (int64_t number = row.form.lowest; row.form.highest - row.form.lowest < few && number <= row.form.highest;
         number++) {
        values.insert(std::to_string(number));
    }
    return values;
}

candidate_set matching(const candidate_set& candidates, const std::string& word) {
    candidate_set found;
    for (const std::string& candidate : candidates) {
        if (candidate.starts_with(word)) {
            found.insert(candidate);
        }
    }
    return found;
}

candidate_set complete_vrf(const control_json& /*request*/, const std::string& word) {
    const std::vector<std::string> names = control_known_vrfs();
    return matching({names.begin(), names.end()}, word);
}

candidate_set complete_value(const control_json& request, const std::string& word) {
    const std::string* path = control_text_member(request, "path");
    const std::vector<std::string> meanings =
        short_path_meanings(path == nullptr ? std::string() : *path, path_target::item);
    const schema_row* row = meanings.size() == 1 ? schema_find(meanings[0], nullptr) : nullptr;
    if (row == nullptr) {
        return {};
    }
    return matching(values_of(*row), word);
}

struct completion_row {
    std::string_view what;
    candidate_set (*complete)(const control_json& request, const std::string& word);
};

constexpr completion_row completions[] = {
    {"item", complete_item},   {"folder", complete_folder}, {"operational", complete_operational},
    {"value", complete_value}, {"vrf", complete_vrf},
};

}  // namespace

control_json control_call_complete(const control_json& request, const control_peer& /*peer*/) {
    const std::string* what = control_text_member(request, "what");
    const std::string* word = control_text_member(request, "word");
    if (word == nullptr) {
        return control_wrong_member("word", "a string");
    }
    for (const completion_row& row : completions) {
        if (what != nullptr && *what == row.what) {
            return control_data_answer(row.complete(request, *word));
        }
    }
    return control_wrong_member("what", "item, folder, operational, value or vrf");
}
