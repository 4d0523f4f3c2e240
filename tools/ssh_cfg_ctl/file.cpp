#include "ssh_cfg_ctl/file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/file_descriptor.h"
#include "common/files.h"
#include "common/text.h"
#include "control_protocol/frame.h"

namespace {

std::string shown_name(const std::string& name) {
    return name == "-" ? "standard input" : text_escape(name, 300);
}

std::nullopt_t fail(control_json& problem, const std::string& name, control_result result, const std::string& reason) {
    problem = control_answer(result, shown_name(name) + ": " + reason);
    return std::nullopt;
}

}  // namespace

std::optional<std::string> ctl_read_file(const std::string& name, control_json& problem) {
    // Not only regular files: the shell gives pipes names, too. Standard input is duplicated, so that it stays open.
    const file_descriptor file(name == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                                           : open(name.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) {
        return fail(problem, name, control_result::failed, strerror(errno));
    }
    std::string text;
    const platform_status status = file_read_to_end(file.get(), CONTROL_FRAME_MAX, text);
    if (status == EFBIG) {
        return fail(problem, name, control_result::refused, "larger than 16 MiB; split it");
    }
    if (status != PLATFORM_OK) {
        return fail(problem, name, control_result::failed, strerror(static_cast<int>(status)));
    }
    return text;
}

std::optional<control_json> ctl_read_json_file(const std::string& name, control_json& problem) {
    const std::optional<std::string> text = ctl_read_file(name, problem);
    if (!text.has_value()) {
        return std::nullopt;
    }
    std::string error;
    std::optional<control_json> document = control_json_parse(*text, error);
    return document.has_value() ? std::move(document) : fail(problem, name, control_result::refused, error);
}

std::optional<control_json> ctl_read_items_file(const std::string& name, control_json& problem, ctl_source* source) {
    const std::optional<std::string> text = ctl_read_file(name, problem);
    if (!text.has_value()) {
        return std::nullopt;
    }
    std::string error;
    const ctl_source found = {shown_name(name), ctl_members(*text)};
    std::optional<control_json> items = control_json_parse(*text, error);
    if (!items.has_value() && ctl_has_duplicates(found) && source != nullptr) {
        items = control_json_parse(ctl_without_duplicates(*text, found.members), error);
    }
    if (!items.has_value()) {
        const std::string mistakes = ctl_mistakes_in_text(found, *text);
        problem = control_answer(control_result::refused, mistakes.empty() ? found.name + ": " + error : mistakes);
        return std::nullopt;
    }
    if (!items->is_object()) {
        problem = control_answer(control_result::refused,
                                 name + ": expected one JSON object that maps paths to values (null deletes an item)");
        return std::nullopt;
    }
    if (source != nullptr) {
        *source = found;
    }
    return items;
}
