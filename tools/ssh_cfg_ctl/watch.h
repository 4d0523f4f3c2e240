/// Events as they happen.
#ifndef SSH_CFG_CTL_WATCH_H
#define SSH_CFG_CTL_WATCH_H

#include "control_protocol/answer.h"
#include "ssh_cfg_ctl/client.h"

/// Sends a request that events follow, and writes them to `output`, each a line with one JSON document that is written in
/// one go, as soon as it is there. Ends with an answer that says why:
///   done         SIGINT or SIGTERM came, or nobody reads the output any more
///   unreachable  the agent cannot be reached or went away
///   another      the agent's own answer, or failed: the output cannot be written
/// Events that the agent has left out because they were not read in time are in the member "duplicates" of the updates
/// that came after them.
control_json ctl_watch(const ctl_connection_settings& settings, const control_json& request, int output);

#endif
