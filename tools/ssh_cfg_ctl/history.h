/// What is printed about the history of commits.
#ifndef SSH_CFG_CTL_HISTORY_H
#define SSH_CFG_CTL_HISTORY_H

#include <string>

#include "control_protocol/json_text.h"

/// The answer of history, as a table.
std::string ctl_history_text(const control_json& answer);

/// The answer of diff: a line "- PATH: VALUE" with the old value of an item, a line with "+" and the new one.
std::string ctl_diff_text(const control_json& answer);

/// Of a commit that must be confirmed, how to do it; otherwise empty.
std::string ctl_confirmation_text(const control_json& answer);

/// The answer of confirm.
std::string ctl_confirmed_text(const control_json& answer);

#endif
