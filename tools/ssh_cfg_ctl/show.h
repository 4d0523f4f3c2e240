/// Operational records as people read them.
#ifndef SSH_CFG_CTL_SHOW_H
#define SSH_CFG_CTL_SHOW_H

#include <cstddef>
#include <string>

#include "control_protocol/json_text.h"

/// The answer of an operational read, in lines of at most `width` columns (0: any). Records that are known by their name
/// ("record" of the answer) are laid out for what they say, with names for numbers; others go by their fields. What is
/// not known is a hyphen, and nothing in it can command a terminal.
std::string ctl_show_text(const control_json& answer, size_t width);

/// Says in the answer to a request that nothing is wrong when there is nothing to show, where that is what "no data"
/// means.
void ctl_explain_no_data(const control_json& request, control_json& answer);

#endif
