/// The tool's end of the control socket.
#ifndef SSH_CFG_CTL_CLIENT_H
#define SSH_CFG_CTL_CLIENT_H

#include <string>

#include "control_protocol/answer.h"

struct ctl_connection_settings {
    std::string socket_path;
    unsigned timeout;   ///< seconds without a sign of life
    bool tell_waiting;  ///< says on standard error that the agent takes its time
};

/// Sends one request and returns the agent's answer. When none comes, the answer is made here: its result is unreachable
/// (or failed, for a request that no frame can hold), its message says why.
control_json ctl_ask(const ctl_connection_settings& settings, const control_json& request);

#endif
