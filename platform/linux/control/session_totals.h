/// How many sessions there are, from those who know it apart from the sessions' records.
#ifndef PLATFORM_LINUX_CONTROL_SESSION_TOTALS_H
#define PLATFORM_LINUX_CONTROL_SESSION_TOTALS_H

#include <optional>
#include <string_view>

#include "common/session_totals.h"

/// Whether sessions are read at this path.
bool control_is_session_path(std::string_view path);

/// Has the responder look for sessions, which it can then be queried for, and returns their number. Waits up to two
/// seconds; none if the responder does not answer.
std::optional<session_totals> control_ask_session_totals(std::string_view socket_path = session_totals_socket);

#endif
