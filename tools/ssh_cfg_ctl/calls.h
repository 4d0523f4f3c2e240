/// The calls of the tool, one row each: its command line, its request, and the text printed for its answer.
#ifndef SSH_CFG_CTL_CALLS_H
#define SSH_CFG_CTL_CALLS_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ssh_cfg_ctl/client.h"
#include "ssh_cfg_ctl/request.h"

struct ctl_call_row {
    const char* name;
    const char* arguments;  ///< as usage lines show them
    const char* purpose;
    ctl_request (*request)(const std::vector<std::string>& arguments);
    std::string (*text)(const control_json& answer);  ///< of an answer that says "done" or "not_in_force", or has data
    bool goes_on = false;                             ///< events follow the answer
    /// Of a call that takes several requests: makes them and returns an answer, or null if the arguments are wrong.
    control_json (*carry_out)(const ctl_connection_settings& settings,
                              const std::vector<std::string>& arguments) = nullptr;
};

std::span<const ctl_call_row> ctl_calls();

/// The row with that name, or null.
const ctl_call_row* ctl_find_call(std::string_view name);

/// The request for a call with these arguments, or the problem with them.
ctl_request ctl_make_request(const ctl_call_row& row, const std::vector<std::string>& arguments);

#endif
