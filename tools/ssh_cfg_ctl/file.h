/// Files that the operator names.
#ifndef SSH_CFG_CTL_FILE_H
#define SSH_CFG_CTL_FILE_H

#include <optional>
#include <string>

#include "control_protocol/answer.h"
#include "ssh_cfg_ctl/mistakes.h"

/// Reads a file of at most CONTROL_FRAME_MAX bytes, or standard input for the name "-". On failure returns nothing and
/// stores a result and a message that names the file in `problem`.
std::optional<std::string> ctl_read_file(const std::string& name, control_json& problem);

/// Reads a file with one JSON document; invalid JSON is refused, with line and column.
std::optional<control_json> ctl_read_json_file(const std::string& name, control_json& problem);

/// Reads a configuration: one JSON object. All duplicate names are refused together, each with its place. If `source` is
/// given, it receives the places of all members, and a duplicate is left out instead of being refused.
std::optional<control_json> ctl_read_items_file(const std::string& name, control_json& problem,
                                                ctl_source* source = nullptr);

#endif
