/// The command line.
#ifndef SSH_CFG_CTL_COMMAND_LINE_H
#define SSH_CFG_CTL_COMMAND_LINE_H

#include <string>
#include <vector>

#include "control_protocol/frame.h"

enum class ctl_action : uint8_t { call, help, version, wrong };

struct ctl_command_line {
    ctl_action action = ctl_action::call;
    std::string error;  ///< of ctl_action::wrong
    bool json = false;
    bool names = false;  ///< enumerations as words, also in JSON
    bool progress = false;
    bool yes = false;  ///< changes are made even if a new login like the operator's would fail after them
    std::string socket_path = control_socket_path;
    unsigned timeout = 600;         ///< seconds without any response from the agent
    std::vector<std::string> call;  ///< the call's name and its arguments
};

/// Options may precede or follow the call. Everything after "--" belongs to the call, as does anything after the call's name
/// that is not one of these options, so a value may begin with '-'. If the call has an option of the same name (reload has
/// a --timeout), that is meant. Without arguments the action is `help`.
ctl_command_line ctl_parse_command_line(const std::vector<std::string>& arguments);

#endif
