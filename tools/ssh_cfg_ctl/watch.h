/// Events as they happen.
#ifndef SSH_CFG_CTL_WATCH_H
#define SSH_CFG_CTL_WATCH_H

#include "control_protocol/answer.h"
#include "ssh_cfg_ctl/client.h"

/// Sends a request that is answered with events, and writes each event to `output` as soon as it arrives: one line, as
/// `line_of` makes it without the line break, in a single write. Returns an answer that says why it ended:
///   done         on SIGINT or SIGTERM, or when nobody reads the output any more
///   unreachable  the agent cannot be reached or closed the connection
///   another      the agent's own answer, or failed: the output cannot be written
/// The member "duplicates" of an update counts the earlier events that the agent dropped because they were not read in
/// time, and so does the member "dropped" of another event.
control_json ctl_watch(const ctl_connection_settings& settings, const control_json& request, int output,
                       std::string (*line_of)(const control_json& event) = control_json_text);

#endif
