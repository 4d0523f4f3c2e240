#include "ssh_cfg_ctl/progress.h"

#include <cstdio>

#include "common/text.h"
#include "ssh_cfg_ctl/terminal.h"

namespace {

constexpr size_t work_max = 1024;
constexpr char clear_line[] = "\r\x1b[K";

/// The beginning of a text of printable characters that fits a line.
std::string cut(const std::string& text, size_t width) {
    return text.size() <= width ? text : text.substr(0, width - 3) + "...";
}

}  // namespace

std::string ctl_progress_text(const control_json& report) {
    const uint64_t total = report.value("total", uint64_t{0});
    std::string text = report.value("waiting", false) ? "waiting for another change: " : "";
    if (total > 0) {
        text += std::to_string(report.value("done", uint64_t{0})) + " of " + std::to_string(total) + ": ";
    }
    return text + text_escape(report.value("work", "busy"), work_max);
}

ctl_progress_display::~ctl_progress_display() {
    if (form_ == ctl_progress::terminal && !shown_.empty()) {
        fputs(clear_line, stderr);
    }
}

void ctl_progress_display::show(const control_json& report) {
    const std::string text = "ssh_cfg_ctl: " + ctl_progress_text(report);
    if (text == shown_) {
        return;
    }
    shown_ = text;
    switch (form_) {
        case ctl_progress::none:
            break;
        case ctl_progress::terminal:
            fprintf(stderr, "%s%s", clear_line, cut(text, ctl_error_width() - 1).c_str());
            fflush(stderr);
            break;
        case ctl_progress::lines:
            fprintf(stderr, "%s\n", text.c_str());
            break;
        case ctl_progress::json:
            fprintf(stdout, "%s\n", control_json_text({{"progress", report}}).c_str());
            fflush(stdout);
            break;
    }
}
