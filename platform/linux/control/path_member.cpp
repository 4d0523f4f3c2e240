#include "linux/control/path_member.h"

#include "linux/control/calls_internal.h"
#include "linux/control/operational_items.h"
#include "linux/datastore/schema.h"
#include "linux/datastore/short_path.h"

namespace {

/// Returns the absolute paths that a short path may stand for.
using meaning_search = std::vector<std::string> (*)(std::string_view path);

std::vector<std::string> item_meanings(std::string_view path) {
    return short_path_meanings(path, path_target::item);
}

std::vector<std::string> folder_meanings(std::string_view path) {
    return short_path_meanings(path, path_target::folder);
}

control_json ambiguous(const std::string& path, const std::vector<std::string>& candidates) {
    std::string message = schema_shown_path(path) + ": ambiguous, expected one of";
    for (const std::string& candidate : candidates) {
        message += '\n' + schema_shown_path(candidate);
    }
    control_json answer = control_answer(control_result::usage, message);
    answer["candidates"] = candidates;
    return answer;
}

control_path path_member(const control_json& request, meaning_search search) {
    const std::string* given = control_text_member(request, "path");
    if (given == nullptr) {
        return {{}, false, control_wrong_member("path", "a string")};
    }
    if (given->starts_with('/')) {
        return {*given, false, {}};
    }
    const std::vector<std::string> meanings = search(*given);
    if (meanings.size() == 1) {
        return {meanings[0] + (given->ends_with('/') ? "/" : ""), true, {}};
    }
    return {*given, true, meanings.empty() ? control_json() : ambiguous(*given, meanings)};
}

}  // namespace

control_path control_item_path(const control_json& request) {
    return path_member(request, item_meanings);
}

control_path control_folder_path(const control_json& request) {
    return path_member(request, folder_meanings);
}

control_path control_operational_path(const control_json& request) {
    return path_member(request, control_operational_meanings);
}

control_path control_item_or_folder_path(const control_json& request) {
    const std::string* given = control_text_member(request, "path");
    return given != nullptr && given->ends_with('/') ? control_folder_path(request) : control_item_path(request);
}
