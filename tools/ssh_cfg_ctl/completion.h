/// Completion for shells: what may stand where the operator is typing.
#ifndef SSH_CFG_CTL_COMPLETION_H
#define SSH_CFG_CTL_COMPLETION_H

#include <string>
#include <vector>

/// The candidates for the last of these words, which follow the tool's name; the last one may be empty. Calls and options are
/// known here, paths and names are the agent's. An agent that does not answer within two seconds has none.
std::vector<std::string> ctl_complete(const std::vector<std::string>& words);

#endif
