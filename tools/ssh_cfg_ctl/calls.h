/// The calls of the tool, one row each: what stands on the command line, what is asked, what people get to read.
#ifndef SSH_CFG_CTL_CALLS_H
#define SSH_CFG_CTL_CALLS_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "control_protocol/answer.h"

/// What comes of a call's arguments: a request, or a problem, which is an answer in its form.
struct ctl_request {
    control_json document;
    control_json problem;  ///< null when there is none
};

struct ctl_call_row {
    const char* name;
    const char* arguments;  ///< as usage lines show them
    const char* purpose;
    ctl_request (*request)(const std::vector<std::string>& arguments);
    std::string (*text)(const control_json& answer);  ///< of an answer that says "done"
    bool goes_on = false;                             ///< events follow the answer
};

std::span<const ctl_call_row> ctl_calls();

/// The row of that name, or null.
const ctl_call_row* ctl_find_call(std::string_view name);

/// The request that a call with these arguments makes, or what is wrong with them.
ctl_request ctl_make_request(const ctl_call_row& row, const std::vector<std::string>& arguments);

#endif
