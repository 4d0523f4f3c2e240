/// The operator's tool: one call, one request to the agent, its answer printed, an exit status for scripts.
#ifndef SSH_CFG_CTL_CTL_H
#define SSH_CFG_CTL_CTL_H

#include <string>
#include <vector>

/// Runs the tool with its arguments (without its own name) and returns its exit status (the numbers of control_result).
int ctl_run(const std::vector<std::string>& arguments);

#endif
