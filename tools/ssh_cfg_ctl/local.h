/// Local directives: settings that an administrator adds to the servers' files.
#ifndef SSH_CFG_CTL_LOCAL_H
#define SSH_CFG_CTL_LOCAL_H

#include <string>
#include <vector>

#include "ssh_cfg_ctl/client.h"

/// Carries out `local show`, `check`, `edit`, `set` or `apply`. Returns the answer, or null if the arguments are wrong.
control_json ctl_local(const ctl_connection_settings& settings, const std::vector<std::string>& arguments);

/// Returns the text for its answer.
std::string ctl_local_text(const control_json& answer);

#endif
