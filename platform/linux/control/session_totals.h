/// The number of sessions according to the responder, including those that do not answer.
#ifndef PLATFORM_LINUX_CONTROL_SESSION_TOTALS_H
#define PLATFORM_LINUX_CONTROL_SESSION_TOTALS_H

#include <optional>
#include <string_view>

#include "common/session_totals.h"

/// Makes the responder look for new sessions, which can then be queried, and returns the total number of sessions.
/// Waits up to two seconds; returns nullopt if the responder does not answer.
std::optional<session_totals> control_ask_session_totals(std::string_view socket_path = session_totals_socket);

#endif
