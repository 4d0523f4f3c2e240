/// Help that needs no agent: the summary of all calls, and one call.
#ifndef SSH_CFG_CTL_HELP_H
#define SSH_CFG_CTL_HELP_H

#include <string>

#include "ssh_cfg_ctl/calls.h"

/// All calls, options and exit statuses.
std::string ctl_summary_text();

/// "ssh_cfg_ctl [OPTION...] get PATH"
std::string ctl_usage_line(const ctl_call_row& row);

/// The usage, the purpose and examples of one call.
std::string ctl_call_help_text(const ctl_call_row& row);

/// An array of objects with name, arguments and purpose: of one call, or of all of them for null.
control_json ctl_calls_json(const ctl_call_row* row);

#endif
