/// The agent's status for people.
#ifndef SSH_CFG_CTL_STATUS_H
#define SSH_CFG_CTL_STATUS_H

#include <cstddef>
#include <string>

#include "control_protocol/json_text.h"

/// The data of the answer to "status": the agent, one line per VRF, and further lines only for what is not as configured,
/// in lines of at most `width` columns where that is possible (0: unlimited).
std::string ctl_status_text(const control_json& status, size_t width);

#endif
