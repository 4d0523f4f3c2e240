/// Requests about the servers' sessions.
#ifndef SSH_CFG_CTL_SESSION_REQUESTS_H
#define SSH_CFG_CTL_SESSION_REQUESTS_H

#include <string>
#include <vector>

#include "ssh_cfg_ctl/request.h"

/// Parses "end ID", "end --pid PID", "end --user USER" or "end --vrf VRF".
ctl_request ctl_session_request(const std::vector<std::string>& arguments);

#endif
