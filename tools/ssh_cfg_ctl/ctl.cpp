#include "ssh_cfg_ctl/ctl.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

#include "common/nearest.h"
#include "common/text.h"
#include "control_protocol/answer.h"
#include "ssh_cfg_ctl/calls.h"
#include "ssh_cfg_ctl/client.h"
#include "ssh_cfg_ctl/command_line.h"
#include "ssh_cfg_ctl/completion.h"
#include "ssh_cfg_ctl/consent.h"
#include "ssh_cfg_ctl/failures.h"
#include "ssh_cfg_ctl/help.h"
#include "ssh_cfg_ctl/print.h"
#include "ssh_cfg_ctl/progress.h"
#include "ssh_cfg_ctl/show.h"
#include "ssh_cfg_ctl/watch.h"

namespace {

constexpr char program[] = "ssh_cfg_ctl";
constexpr char help_call[] = "help";
constexpr char complete_call[] = "complete";  ///< not in the summary: nobody types it

/// Prints to standard output. A write error is a failure, so that nobody takes part of a dump for all of it.
int print(const std::string& text, control_result result) {
    const bool written = fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
    if (!written) {
        fprintf(stderr, "%s: standard output: %s\n", program, strerror(errno));
        return static_cast<int>(control_result::failed);
    }
    return static_cast<int>(result);
}

/// Prints each line of a message to standard error, prefixed with the program's name.
void complain(std::string_view message) {
    while (!message.empty()) {
        const std::string_view line = message.substr(0, message.find('\n'));
        fprintf(stderr, "%s: %s\n", program, text_escape(line, 4096).c_str());
        message.remove_prefix(std::min(message.size(), line.size() + 1));
    }
}

/// Exits with any answer other than "done".
int report_problem(const ctl_command_line& line, const control_json& answer) {
    const control_result result = control_result_of_name(answer.value("result", ""));
    complain(answer.value("message", "the agent gave no reason"));
    return line.json ? print(control_json_text(answer) + '\n', result) : static_cast<int>(result);
}

int report_usage(const ctl_command_line& line, const std::string& message) {
    const int status = report_problem(line, control_answer(control_result::usage, message));
    fprintf(stderr, "Try '%s --help'.\n", program);
    return status;
}

int report_unknown_call(const ctl_command_line& line) {
    std::vector<std::string_view> names;
    for (const ctl_call_row& row : ctl_calls()) {
        names.emplace_back(row.name);
    }
    const std::string_view nearest = nearest_word(line.call[0], names);
    const std::string message = "unknown call '" + text_escape(line.call[0], 40) + "'";
    return report_usage(line, nearest.empty() ? message : message + "; did you mean '" + std::string(nearest) + "'?");
}

/// What the operator should know although the change was made.
void warn(const control_json& answer) {
    for (const control_json& warning : answer.value("warnings", control_json::array())) {
        complain("warning: " + warning.get<std::string>());
    }
}

/// Whether the result of the call is worth printing, although not everything is as it should be.
bool has_output(control_result result, const control_json& answer) {
    return result == control_result::done || result == control_result::not_in_force || answer.contains("data");
}

int report(const ctl_command_line& line, const ctl_call_row& row, const control_json& answer) {
    const control_result result = control_result_of_name(answer.value("result", ""));
    if (!has_output(result, answer)) {
        return report_problem(line, answer);
    }
    if (result != control_result::done) {
        complain(answer.value("message", "the agent gave no reason"));
    }
    warn(answer);
    if (line.json) {
        return print(control_json_text(answer.contains("data") ? answer["data"] : answer) + '\n', result);
    }
    return print(row.text(answer), result);
}

/// Prints events until either side ends the watch.
int run_watch(const ctl_command_line& line, const ctl_connection_settings& settings, const control_json& request) {
    const bool in_words = request.contains("sessions") && !line.json;
    const control_json end =
        ctl_watch(settings, request, STDOUT_FILENO, in_words ? ctl_login_event_text : control_json_text);
    const bool wanted = control_result_of_name(end.value("result", "")) == control_result::done;
    return wanted ? static_cast<int>(control_result::done) : report_problem(line, end);
}

/// A terminal shows the progress of what takes longer than a second.
ctl_progress progress_form(const ctl_command_line& line, bool on_terminal) {
    if (line.progress) {
        return line.json ? ctl_progress::json : ctl_progress::lines;
    }
    return on_terminal ? ctl_progress::terminal : ctl_progress::none;
}

ctl_connection_settings settings_of(const ctl_command_line& line) {
    const bool on_terminal = isatty(STDERR_FILENO) == 1;
    return {line.socket_path, line.timeout, on_terminal, progress_form(line, on_terminal), line.yes};
}

/// A call that takes several requests.
int run_requests(const ctl_command_line& line, const ctl_call_row& row) {
    const control_json answer = row.carry_out(settings_of(line), {line.call.begin() + 1, line.call.end()});
    return answer.is_null() ? report_usage(line, "usage: " + ctl_usage_line(row)) : report(line, row, answer);
}

int run_call(const ctl_command_line& line) {
    const ctl_call_row* row = ctl_find_call(line.call[0]);
    if (row == nullptr) {
        return report_unknown_call(line);
    }
    if (row->carry_out != nullptr) {
        return run_requests(line, *row);
    }
    const ctl_request request = ctl_make_request(*row, {line.call.begin() + 1, line.call.end()});
    if (request.problem.is_null()) {
        const ctl_connection_settings settings = settings_of(line);
        if (row->goes_on) {
            return run_watch(line, settings, request.document);
        }
        control_json answer = ctl_ask_with_consent(settings, request.document);
        ctl_locate_mistakes(request.source, answer);
        ctl_explain_sessions(request.document, answer);
        if (line.names) {
            ctl_name_values(answer);
        }
        return report(line, *row, answer);
    }
    if (request.problem.contains("message")) {
        return report_problem(line, request.problem);
    }
    return report_usage(line, "usage: " + ctl_usage_line(*row));
}

/// The call that the operator wants explained; null for the summary, or for a path.
const ctl_call_row* explained_call(const ctl_command_line& line) {
    const bool is_help = !line.call.empty() && line.call[0] == help_call;
    const size_t place = is_help ? 1 : 0;
    return line.call.size() > place ? ctl_find_call(line.call[place]) : nullptr;
}

/// Prints what is known without the agent.
int run_help(const ctl_command_line& line) {
    const ctl_call_row* row = explained_call(line);
    if (line.json) {
        return print(control_json_text(ctl_calls_json(row)) + '\n', control_result::done);
    }
    return print(row == nullptr ? ctl_summary_text() : ctl_call_help_text(*row), control_result::done);
}

bool is_help_without_agent(const ctl_command_line& line) {
    return line.call[0] == help_call && (line.call.size() == 1 || explained_call(line) != nullptr);
}

/// Prints the candidates for a word that is being typed, for the shells.
int run_complete(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& candidate : ctl_complete(words)) {
        text += text_escape(candidate, ctl_shown_max) + '\n';
    }
    return print(text, control_result::done);
}

int run(const std::vector<std::string>& arguments) {
    if (!arguments.empty() && arguments[0] == complete_call) {
        return run_complete({arguments.begin() + 1, arguments.end()});
    }
    const ctl_command_line line = ctl_parse_command_line(arguments);
    switch (line.action) {
        case ctl_action::help:
            return run_help(line);
        case ctl_action::version:
            return print(std::string(program) + ' ' + control_version() + '\n', control_result::done);
        case ctl_action::wrong:
            return report_usage(line, line.error);
        case ctl_action::call:
            break;
    }
    return is_help_without_agent(line) ? run_help(line) : run_call(line);
}

}  // namespace

int ctl_run(const std::vector<std::string>& arguments) {
    try {
        return run(arguments);
    } catch (const std::exception& exception) {
        complain(exception.what());
        return static_cast<int>(control_result::failed);
    }
}
