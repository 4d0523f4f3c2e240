/// Requests that the agent refuses because a new login like the operator's would fail after them.
#ifndef SSH_CFG_CTL_CONSENT_H
#define SSH_CFG_CTL_CONSENT_H

#include "ssh_cfg_ctl/client.h"

/// Like ctl_ask_to_the_end, but if the agent announces that the change would keep the operator out, prints that and asks on
/// the terminal whether it is to be made nevertheless. Without a terminal, and after any reply but "yes", the refusal is
/// the answer. If the settings contain the operator's consent, nobody is asked.
control_json ctl_ask_with_consent(const ctl_connection_settings& settings, control_json request);

#endif
