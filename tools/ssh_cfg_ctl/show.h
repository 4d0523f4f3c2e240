/// Human-readable operational records.
#ifndef SSH_CFG_CTL_SHOW_H
#define SSH_CFG_CTL_SHOW_H

#include <cstddef>
#include <string>

#include "control_protocol/json_text.h"

/// The answer of an operational read, in lines of at most `width` columns (0: unlimited). Known records ("record" of the
/// answer) have layouts of their own, with names instead of numbers; others are printed field by field. Unknown values
/// are shown as a hyphen, and control characters are escaped.
std::string ctl_show_text(const control_json& answer, size_t width);

/// Replaces the numbers of enumerations in an operational read's data by their names, and unknown ones by null.
void ctl_name_values(control_json& answer);

/// If the request reads sessions, adds to its answer how many of them did not answer: as a warning, or instead of the
/// message "no data". If there are no sessions, that message becomes "no sessions".
void ctl_explain_sessions(const control_json& request, control_json& answer);

#endif
