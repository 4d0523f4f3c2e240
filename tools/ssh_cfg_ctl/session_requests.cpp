#include "ssh_cfg_ctl/session_requests.h"

#include <cstdint>
#include <optional>

#include "common/number.h"
#include "common/text.h"

namespace {

constexpr size_t shown_argument = 40;

/// The request to end what an option and its value select; without an option, the value is an ID.
ctl_request end_request(const std::string& option, const std::string& value) {
    if (option == "--user" || option == "--vrf") {
        return ctl_request_of({{"call", "session_end"}, {option.substr(2), value}});
    }
    const std::optional<uint32_t> number = number_parse<uint32_t>(value, 1, UINT32_MAX);
    if (!number) {
        return ctl_request_problem(control_result::usage,
                                   "session end: expected a number, not '" + text_escape(value, shown_argument) + "'");
    }
    return ctl_request_of({{"call", "session_end"}, {option == "--pid" ? "pid" : "id", *number}});
}

}  // namespace

ctl_request ctl_session_request(const std::vector<std::string>& arguments) {
    if (arguments.size() < 2 || arguments[0] != "end") {
        return ctl_wrong_arguments();
    }
    const std::string& option = arguments[1];
    if (arguments.size() == 2) {
        return option.starts_with("--") ? ctl_wrong_arguments() : end_request("", option);
    }
    const bool is_known = option == "--pid" || option == "--user" || option == "--vrf";
    return arguments.size() == 3 && is_known ? end_request(option, arguments[2]) : ctl_wrong_arguments();
}
