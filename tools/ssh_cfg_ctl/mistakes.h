/// The mistakes in a file of items: each is reported with its place.
#ifndef SSH_CFG_CTL_MISTAKES_H
#define SSH_CFG_CTL_MISTAKES_H

#include <string>
#include <string_view>
#include <vector>

#include "control_protocol/answer.h"
#include "ssh_cfg_ctl/members.h"

/// The file from which a request was made. It has no members if the request was not made from one.
struct ctl_source {
    std::string name;  ///< as messages show it
    std::vector<ctl_member> members = {};
};

bool ctl_has_duplicates(const ctl_source& source);

/// Returns one line for each duplicate name, and for each value that is not valid by itself, in the order of the file.
std::string ctl_mistakes_in_text(const ctl_source& source, std::string_view text);

/// Adds the places in the file to the agent's answer to a request that it refused. Turns any answer to a request from a
/// file with duplicate names into a refusal that names these, too.
void ctl_locate_mistakes(const ctl_source& source, control_json& answer);

#endif
