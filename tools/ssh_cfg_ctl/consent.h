/// Asks the operator to confirm a change after which a new login like the operator's own would be refused.
#ifndef SSH_CFG_CTL_CONSENT_H
#define SSH_CFG_CTL_CONSENT_H

#include "ssh_cfg_ctl/client.h"

/// Like ctl_ask_to_the_end, but if the agent reports that the change would keep the operator out, prints the report and asks
/// on the terminal whether to make the change anyway. Returns the refusal if there is no terminal or the reply is not "yes".
/// Asks nothing if the settings contain the operator's consent.
control_json ctl_ask_with_consent(const ctl_connection_settings& settings, control_json request);

#endif
