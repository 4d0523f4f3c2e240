/// Failed logins, and what happens to logins, as text.
#ifndef SSH_CFG_CTL_FAILURES_H
#define SSH_CFG_CTL_FAILURES_H

#include <cstddef>
#include <string>
#include <vector>

#include "control_protocol/json_text.h"
#include "ssh_cfg_ctl/request.h"

/// The request of `failures [--lines N] [VRF]`.
ctl_request ctl_failures_request(const std::vector<std::string>& arguments);

/// Failed logins as a table for lines of `width` columns (0: unlimited).
std::string ctl_failures_text(const control_json& failures, size_t width);

/// One line about a login, a logout or a failed login, without a line break.
std::string ctl_login_event_text(const control_json& event);

#endif
