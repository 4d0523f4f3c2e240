/// Files that the operator names.
#ifndef SSH_CFG_CTL_FILE_H
#define SSH_CFG_CTL_FILE_H

#include <optional>
#include <string>

#include "control_protocol/answer.h"

/// Reads a file, or standard input when its name is "-", of at most CONTROL_FRAME_MAX bytes. Nothing, with a result and
/// a message that names the file in `problem`, when that cannot be done.
std::optional<std::string> ctl_read_file(const std::string& name, control_json& problem);

/// Reads a file with one JSON document; what is no such document is refused, with line and column.
std::optional<control_json> ctl_read_json_file(const std::string& name, control_json& problem);

#endif
