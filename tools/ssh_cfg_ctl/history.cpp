#include "ssh_cfg_ctl/history.h"

#include "common/text.h"
#include "ssh_cfg_ctl/print.h"
#include "ssh_cfg_ctl/terminal.h"

namespace {

constexpr const char* history_columns[] = {"number", "time", "user", "call", "changes", "note"};

std::string commit_name(const control_json& answer) {
    return "commit " + std::to_string(answer.value("commit", uint64_t{0}));
}

std::string value_line(char sign, const control_json& difference, const char* member) {
    const auto value = difference.find(member);
    if (value == difference.end()) {
        return {};
    }
    return std::string(1, sign) + ' ' + text_escape(difference.value("path", ""), ctl_shown_max) + ": " +
           text_escape(control_json_text(*value), ctl_shown_max) + '\n';
}

}  // namespace

std::string ctl_history_text(const control_json& answer) {
    control_json rows = control_json::array();
    for (const control_json& commit : answer.value("data", control_json::array())) {
        control_json row = control_json::object();
        for (const char* column : history_columns) {
            row[column] = commit.value(column, control_json());
        }
        rows.push_back(std::move(row));
    }
    return rows.empty() ? "no commits\n" : ctl_records_text(rows, ctl_output_width());
}

std::string ctl_diff_text(const control_json& answer) {
    std::string text;
    for (const control_json& difference : answer.value("data", control_json::array())) {
        text += value_line('-', difference, "previous") + value_line('+', difference, "value");
    }
    return text.empty() ? "no differences\n" : text;
}

std::string ctl_confirmation_text(const control_json& answer) {
    const uint64_t seconds = answer.value("confirm_within", uint64_t{0});
    if (seconds == 0) {
        return {};
    }
    return commit_name(answer) + " is undone unless 'ssh_cfg_ctl confirm' follows within " +
           std::to_string(seconds / 60) + (seconds == 60 ? " minute\n" : " minutes\n");
}

std::string ctl_confirmed_text(const control_json& answer) {
    return commit_name(answer) + " confirmed\n";
}
