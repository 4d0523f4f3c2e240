/// The audit log: who changed what through the control socket.
#ifndef LINUX_CONTROL_AUDIT_H
#define LINUX_CONTROL_AUDIT_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "control_protocol/answer.h"
#include "linux/control/peer.h"

/// Logs one change, successful or refused: the user, the call, the result and the items. Entries that do not fit on one
/// line continue on further lines, so that none is omitted.
void control_audit(const control_peer& peer, std::string_view call, control_result result,
                   const std::vector<std::string>& entries);

/// For tests: redirects the lines away from the journal. An empty argument restores the journal.
void control_audit_divert(std::function<void(const std::string& line)> sink);

#endif
