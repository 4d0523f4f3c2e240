#include <algorithm>

#include "common/text.h"
#include "linux/datastore/schema.h"
#include "linux/datastore/schema_form.h"
#include "linux/datastore/schema_nearest.h"
#include "linux/datastore/short_path.h"

namespace {

constexpr size_t path_limit = 1024;  ///< the maximum length of a path, in bytes
constexpr size_t shown_name = 80;

/// Removes the first component of `path`, which begins with '/'.
std::string_view take_component(std::string_view& path) {
    path.remove_prefix(1);
    const std::string_view component = path.substr(0, path.find('/'));
    path.remove_prefix(component.size());
    return component;
}

struct match {
    bool matches = false;
    std::string_view wrong_name;  ///< a component that matches "*" but has the wrong form; null data if there is none
};

bool name_fits(std::string_view name, const schema_form& form) {
    return static_cast<int64_t>(name.size()) >= form.lowest && static_cast<int64_t>(name.size()) <= form.highest &&
           schema_has_charset(name, form.charset);
}

match match_path(const schema_row& row, std::string_view path) {
    std::string_view pattern = row.pattern;
    match result;
    while (!pattern.empty()) {
        if (path.empty()) {
            return result;
        }
        const std::string_view expected = take_component(pattern);
        const std::string_view found = take_component(path);
        if (expected == "*") {
            if (!name_fits(found, row.wildcard)) {
                result.wrong_name = found;
            }
        } else if (expected != found) {
            return result;
        }
    }
    result.matches = path.empty();
    return result;
}

/// The row whose pattern matches the path exactly.
const schema_row* find_literally(std::string_view path) {
    const std::span<const schema_row> rows = schema_rows();
    const auto found = std::lower_bound(
        rows.begin(), rows.end(), path,
        [](const schema_row& row, std::string_view wanted) { return std::string_view(row.pattern) < wanted; });
    return found != rows.end() && found->wildcard.help == nullptr && path == found->pattern ? &*found : nullptr;
}

std::string unknown_path(std::string_view path) {
    const schema_row& row = schema_nearest(path);
    if (!path.starts_with('/') && !short_path_meanings(path, path_target::item).empty()) {
        return text_format("%s: not an absolute path; expected an item such as %s", schema_shown_path(path).c_str(),
                           row.pattern);
    }
    if (row.wildcard.help == nullptr) {
        return text_format("%s: no such item; the closest match is %s", schema_shown_path(path).c_str(), row.pattern);
    }
    return text_format("%s: no such item; the closest match is %s, where * is %s", schema_shown_path(path).c_str(),
                       row.pattern, schema_form_in_words(row.wildcard).c_str());
}

std::string wrong_name(std::string_view path, std::string_view name, const schema_row& row) {
    return text_format("%s: \"%s\" is not allowed in this path; expected %s", schema_shown_path(path).c_str(),
                       text_escape_quoted(name, shown_name).c_str(), schema_form_in_words(row.wildcard).c_str());
}

}  // namespace

std::string_view schema_cut_component(std::string_view& path) {
    const std::string_view component = path.substr(0, path.find('/'));
    path.remove_prefix(component.size());
    path.remove_prefix(path.empty() ? 0 : 1);
    return component;
}

std::string schema_shown_path(std::string_view path) {
    constexpr size_t bytes_max = 200;
    return text_escape(path, bytes_max);
}

const schema_row* schema_find(std::string_view path, std::string* refusal) {
    if (const schema_row* row = find_literally(path)) {
        return row;
    }
    const schema_row* row_of_wrong_name = nullptr;
    std::string_view name;
    if (!path.empty() && path[0] == '/' && path.size() <= path_limit) {
        for (const schema_row& row : schema_rows()) {
            const match result = row.wildcard.help == nullptr ? match() : match_path(row, path);
            if (result.matches && result.wrong_name.data() == nullptr) {
                return &row;
            }
            if (result.matches) {
                row_of_wrong_name = &row;
                name = result.wrong_name;
            }
        }
    }
    if (refusal != nullptr) {
        *refusal = row_of_wrong_name != nullptr ? wrong_name(path, name, *row_of_wrong_name) : unknown_path(path);
    }
    return nullptr;
}

int schema_field_index(const schema_row& row, std::string_view name) {
    for (size_t i = 0; i < row.fields.size(); i++) {
        if (row.fields[i].name == name) {
            return static_cast<int>(i);
        }
    }
    return -1;
}
