#include "linux/datastore/schema_children.h"

#include <set>

#include "linux/datastore/schema.h"

namespace {

/// Returns the part of the row's pattern that follows `path`, which is empty or ends in '/', or an empty string if the item
/// is not below `path`. Neither `path` nor the result begins with '/'.
std::string_view pattern_below(const schema_row& row, std::string_view path) {
    std::string_view pattern = std::string_view(row.pattern).substr(1);
    while (!path.empty()) {
        const std::string_view expected = schema_cut_component(pattern);
        const std::string_view found = schema_cut_component(path);
        if (found.empty() || (expected != "*" && expected != found)) {
            return {};
        }
    }
    return pattern;
}

/// Converts an absolute path to the form that pattern_below expects.
std::string folder_of(std::string_view path) {
    std::string folder(path.substr(1));
    return folder += folder.empty() || folder.ends_with('/') ? "" : "/";
}

}  // namespace

std::vector<std::string> schema_children(std::string_view path) {
    if (!path.starts_with('/')) {
        return {};
    }
    const std::string folder = folder_of(path);
    std::set<std::string> names;
    for (const schema_row& row : schema_rows()) {
        std::string_view below = pattern_below(row, folder);
        const std::string name(schema_cut_component(below));
        if (!name.empty()) {
            names.insert(below.empty() ? name : name + '/');
        }
    }
    return {names.begin(), names.end()};
}

std::vector<const schema_row*> schema_rows_below(std::string_view path) {
    std::vector<const schema_row*> rows;
    for (const schema_row& row : schema_rows()) {
        if (path.starts_with('/') && !pattern_below(row, folder_of(path)).empty()) {
            rows.push_back(&row);
        }
    }
    return rows;
}
