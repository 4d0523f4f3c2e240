/// The text printed for the answers to changes and checks.
#ifndef SSH_CFG_CTL_CHANGE_TEXT_H
#define SSH_CFG_CTL_CHANGE_TEXT_H

#include <string>

#include "control_protocol/answer.h"

/// Returns what a load, a rollback or a check has done or would do: for a check each item with its old and new value, the
/// lines of files and the servers that would change; then the number of items.
std::string ctl_load_text(const control_json& answer);

/// Returns the same for a check of one change. For a change, returns what became of the items if the path was given by its
/// end, otherwise an empty string.
std::string ctl_change_text(const control_json& answer);

/// Returns what a check of an access list has found: the lines that would change, and whose rules would be replaced.
std::string ctl_list_check_text(const control_json& answer);

#endif
