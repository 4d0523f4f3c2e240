/// What is printed about the history of commits.
#ifndef SSH_CFG_CTL_HISTORY_H
#define SSH_CFG_CTL_HISTORY_H

#include <string>

#include "control_protocol/json_text.h"

/// Returns the answer of history as a table.
std::string ctl_history_text(const control_json& answer);

/// Returns the answer of diff as lines: "- PATH: VALUE" for the old value of an item and "+ PATH: VALUE" for the new one.
std::string ctl_diff_text(const control_json& answer);

/// Returns how to confirm the commit in the answer, or an empty string if it need not be confirmed.
std::string ctl_confirmation_text(const control_json& answer);

/// Returns the answer of confirm as a sentence.
std::string ctl_confirmed_text(const control_json& answer);

#endif
