/// Options of a call, at any place among its arguments.
#ifndef SSH_CFG_CTL_OPTIONS_H
#define SSH_CFG_CTL_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

/// Removes a flag. Returns whether it was there.
bool ctl_take_flag(std::vector<std::string>& arguments, const std::string& name);

/// Removes an option with its value, "--name VALUE" or "--name=VALUE". Returns the value; nothing if the option or its value
/// is missing, and the option is then left.
std::optional<std::string> ctl_take_value(std::vector<std::string>& arguments, const std::string& name);

#endif
