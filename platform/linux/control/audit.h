/// The record of who changed what through the control socket.
#ifndef LINUX_CONTROL_AUDIT_H
#define LINUX_CONTROL_AUDIT_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "control_protocol/answer.h"
#include "linux/control/peer.h"

/// Logs one change, done or refused: who asked, for what, with which result, and what it was about. Entries that do not
/// fit one line go on in further lines, so that none is left out.
void control_audit(const control_peer& peer, std::string_view call, control_result result,
                   const std::vector<std::string>& entries);

/// For tests: where the lines go instead of the journal. Empty brings the journal back.
void control_audit_divert(std::function<void(const std::string& line)> sink);

#endif
