/// What a call's arguments ask for.
#ifndef SSH_CFG_CTL_REQUEST_H
#define SSH_CFG_CTL_REQUEST_H

#include <string>

#include "control_protocol/answer.h"
#include "ssh_cfg_ctl/mistakes.h"

/// The result of parsing a call's arguments: a request, or a problem, which has the form of an answer.
struct ctl_request {
    control_json document;
    control_json problem;    ///< null when there is none
    ctl_source source = {};  ///< the file with the items of the request
};

/// Returns a request without a problem.
ctl_request ctl_request_of(control_json document);

/// Returns a problem without a request.
ctl_request ctl_request_problem(control_result result, const std::string& message);

/// Returns the problem that the arguments do not have the form in the call's usage line.
ctl_request ctl_wrong_arguments();

#endif
