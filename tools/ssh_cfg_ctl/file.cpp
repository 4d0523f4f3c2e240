#include "ssh_cfg_ctl/file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "control_protocol/frame.h"

namespace {

struct file_closer {
    void operator()(FILE* file) const {
        if (file != stdin) {
            fclose(file);
        }
    }
};

std::string shown_name(const std::string& name) {
    return name == "-" ? "standard input" : control_printable(name, 300);
}

std::nullopt_t fail(control_json& problem, const std::string& name, control_result result, const std::string& reason) {
    problem = control_answer(result, shown_name(name) + ": " + reason);
    return std::nullopt;
}

}  // namespace

std::optional<std::string> ctl_read_file(const std::string& name, control_json& problem) {
    const std::unique_ptr<FILE, file_closer> file(name == "-" ? stdin : fopen(name.c_str(), "re"));
    if (file == nullptr) {
        return fail(problem, name, control_result::failed, strerror(errno));
    }
    static char buffer[65536];
    std::string text;
    for (size_t count = sizeof buffer; count > 0;) {
        count = fread(buffer, 1, sizeof buffer, file.get());
        text.append(buffer, count);
        if (text.size() > CONTROL_FRAME_MAX) {
            return fail(problem, name, control_result::refused, "larger than 16 MiB; split it");
        }
    }
    if (ferror(file.get()) != 0) {
        return fail(problem, name, control_result::failed, strerror(errno));
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
