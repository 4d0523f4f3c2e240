/// Help about items of the configuration, from what the agent says about them.
#ifndef SSH_CFG_CTL_ITEM_HELP_H
#define SSH_CFG_CTL_ITEM_HELP_H

#include <cstddef>
#include <string>

#include "control_protocol/json_text.h"

/// The answer to "help" about items, in lines of at most `width` columns (0: unlimited): all about one item, or a list of
/// several.
std::string ctl_item_help_text(const control_json& items, size_t width);

/// The answer to "list" about everything that can be configured below a path: a table of names, values and meanings.
std::string ctl_children_text(const control_json& children, size_t width);

#endif
