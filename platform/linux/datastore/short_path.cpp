#include "linux/datastore/short_path.h"

#include <optional>
#include <set>
#include <span>

#include "linux/datastore/schema.h"
#include "linux/datastore/served_lists.h"

namespace {

constexpr size_t short_path_limit = 1024;  ///< the maximum length of a short path, in bytes
constexpr std::string_view configuration = "/cfg/";

using component_list = std::vector<std::string_view>;
using components = std::span<const std::string_view>;

/// Splits a path into its components. A slash at its beginning or end is ignored.
component_list split(std::string_view path) {
    path.remove_prefix(path.starts_with('/') ? 1 : 0);
    component_list parts;
    while (!path.empty()) {
        parts.push_back(schema_cut_component(path));
    }
    return parts;
}

/// Returns the absolute path if `end` matches the end of the pattern, otherwise nothing. The first component of `end` never
/// matches a "*", because a name alone would match every "*".
std::optional<std::string> completed(components pattern, components end) {
    if (end.empty() || end.size() > pattern.size()) {
        return std::nullopt;
    }
    const size_t start = pattern.size() - end.size();
    std::string path;
    for (size_t i = 0; i < pattern.size(); i++) {
        const bool is_wildcard = pattern[i] == "*";
        const std::string_view part = i < start ? pattern[i] : end[i - start];
        if (is_wildcard ? i <= start : part != pattern[i]) {
            return std::nullopt;
        }
        path.append("/").append(part);
    }
    return path;
}

void insert_if_any(std::set<std::string>& paths, const std::optional<std::string>& path) {
    if (path) {
        paths.insert(*path);
    }
}

std::set<std::string> items_that_end_with(components end) {
    std::set<std::string> paths;
    for (const schema_row& row : schema_rows()) {
        insert_if_any(paths, completed(split(row.pattern), end));
    }
    return paths;
}

std::set<std::string> folders_that_end_with(components end) {
    std::set<std::string> paths;
    for (const schema_row& row : schema_rows()) {
        const component_list pattern = split(row.pattern);
        for (size_t depth = 1; depth < pattern.size(); depth++) {
            insert_if_any(paths, completed(components(pattern).first(depth), end));
        }
    }
    for (const std::string_view tree : datastore_served_trees()) {
        if (tree.starts_with(configuration)) {
            insert_if_any(paths, completed(split(tree), end));
        }
    }
    return paths;
}

}  // namespace

std::vector<std::string> short_path_meanings(std::string_view path, path_target target) {
    if (path.starts_with('/')) {
        return {std::string(path)};
    }
    if (path.size() > short_path_limit || (target == path_target::item && path.ends_with('/'))) {
        return {};
    }
    const component_list end = split(path);
    const std::set<std::string> paths =
        target == path_target::item ? items_that_end_with(end) : folders_that_end_with(end);
    return {paths.begin(), paths.end()};
}

std::string short_path_of(std::string_view path, std::string_view beginning) {
    const path_target target = path.ends_with('/') ? path_target::folder : path_target::item;
    for (size_t start = path.size(); start > 1;) {
        start = path.rfind('/', start - 2) + 1;
        const std::string_view end = path.substr(start);
        if (end.starts_with(beginning) && short_path_meanings(end, target).size() == 1) {
            return std::string(end);
        }
    }
    return {};
}
