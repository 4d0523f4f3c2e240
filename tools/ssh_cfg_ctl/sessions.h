/// The servers' sessions for people.
#ifndef SSH_CFG_CTL_SESSIONS_H
#define SSH_CFG_CTL_SESSIONS_H

#include <cstddef>
#include <string>

#include "control_protocol/json_text.h"

/// Returns the data of the answer to "sessions" as a table in lines of at most `width` columns (0: unlimited).
std::string ctl_sessions_text(const control_json& sessions, size_t width);

/// Returns a line for each session in the data of the answer to "session_end".
std::string ctl_ended_sessions_text(const control_json& sessions);

/// Returns the members "address" and "port" of an object: "10.0.0.7:40000", "[2001:db8::7]:40000" or "-".
std::string ctl_source_text(const control_json& object);

/// Returns a duration in at most two units: "45s", "12m", "3h 05m", "2d 04h".
std::string ctl_duration_text(int64_t seconds);

#endif
