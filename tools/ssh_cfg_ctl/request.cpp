#include "ssh_cfg_ctl/request.h"

#include <utility>

ctl_request ctl_request_of(control_json document) {
    return {std::move(document), {}, {}};
}

ctl_request ctl_request_problem(control_result result, const std::string& message) {
    return {{}, control_answer(result, message), {}};
}

ctl_request ctl_wrong_arguments() {
    return ctl_request_problem(control_result::usage, {});
}
