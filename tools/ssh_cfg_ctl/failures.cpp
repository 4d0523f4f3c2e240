#include "ssh_cfg_ctl/failures.h"

#include <cstdint>
#include <optional>

#include "common/number.h"
#include "common/text.h"
#include "ssh_cfg_ctl/options.h"
#include "ssh_cfg_ctl/print.h"
#include "ssh_cfg_ctl/sessions.h"
#include "ssh_cfg_ctl/table.h"

namespace {

constexpr char unknown_value[] = "-";  ///< of ctl_value_text()
constexpr uint32_t lines_max = 1000;

/// The reason, and what else is known about it, such as the fingerprint of the key.
ctl_cell reason_cell(const control_json& failure) {
    ctl_cell cell = {ctl_member_text(failure, "reason")};
    for (const char* name : {"detail", "key"}) {
        const std::string text = ctl_member_text(failure, name);
        if (text != unknown_value) {
            cell.push_back(text);
        }
    }
    return cell;
}

std::string duration_text(const control_json& event) {
    const auto duration = event.find("duration");
    return duration != event.end() && duration->is_number_unsigned()
               ? " after " + ctl_duration_text(duration->get<int64_t>())
               : std::string();
}

std::string login_outcome(const control_json& event) {
    const std::string kind = ctl_member_text(event, "event");
    const std::string method = ctl_member_text(event, "method");
    const std::string with = method == unknown_value ? std::string() : " with " + method;
    if (kind == "login-failed") {
        return "login failed" + with + ": " + ctl_member_text(event, "reason");
    }
    return kind == "logout" ? "logout" + duration_text(event) : kind + with;
}

/// How many events before this one were dropped because they were not read in time.
std::string dropped_text(const control_json& event) {
    const auto dropped = event.find("dropped");
    return dropped == event.end() ? std::string() : " (" + ctl_value_text(*dropped) + " earlier events not shown)";
}

}  // namespace

ctl_request ctl_failures_request(const std::vector<std::string>& given) {
    std::vector<std::string> arguments = given;
    control_json request = {{"call", "failures"}};
    if (const std::optional<std::string> lines = ctl_take_value(arguments, "--lines"); lines.has_value()) {
        const std::optional<uint32_t> number = number_parse<uint32_t>(*lines, 1, lines_max);
        if (!number) {
            return ctl_request_problem(control_result::usage, "--lines: expected a number from 1 to 1000, not '" +
                                                                  text_escape(*lines, 40) + "'");
        }
        request["lines"] = *number;
    }
    if (arguments.size() > 1 || (arguments.size() == 1 && (arguments[0].empty() || arguments[0].starts_with('-')))) {
        return ctl_wrong_arguments();
    }
    if (!arguments.empty()) {
        request["vrf"] = arguments[0];
    }
    return ctl_request_of(std::move(request));
}

std::string ctl_failures_text(const control_json& failures, size_t width) {
    if (!failures.is_array() || failures.empty()) {
        return "no failed logins\n";
    }
    ctl_table table = {
        {{"Time", true}, {"VRF", true}, {"User", false}, {"Source", true}, {"Method", false}, {"Reason", false}}, {}};
    table.rows.reserve(failures.size());
    for (const control_json& failure : failures) {
        table.rows.push_back({{ctl_member_text(failure, "time")},
                              {ctl_member_text(failure, "vrf")},
                              {ctl_member_text(failure, "user")},
                              {ctl_source_text(failure)},
                              {ctl_member_text(failure, "method")},
                              reason_cell(failure)});
    }
    return ctl_table_text(table, width, 0);
}

std::string ctl_login_event_text(const control_json& event) {
    return ctl_member_text(event, "time") + "  " + ctl_member_text(event, "vrf") + "  " +
           ctl_member_text(event, "user") + "  " + ctl_source_text(event) + "  " + login_outcome(event) +
           dropped_text(event);
}
