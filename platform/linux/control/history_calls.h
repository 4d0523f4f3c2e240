/// Restores an earlier configuration.
#ifndef LINUX_CONTROL_HISTORY_CALLS_H
#define LINUX_CONTROL_HISTORY_CALLS_H

#include <cstdint>

#include "linux/control/change_calls.h"

/// Makes one commit that restores the configuration after commit `number`. Returns the answer to the peer.
control_json control_roll_back(const control_change_call& call, uint64_t number);

#endif
