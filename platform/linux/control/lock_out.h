/// Changes that would keep their own author out: they are announced, and carried out only if the request accepts that.
#ifndef LINUX_CONTROL_LOCK_OUT_H
#define LINUX_CONTROL_LOCK_OUT_H

#include <string>
#include <vector>

#include "control_protocol/json_text.h"

/// Reads the optional member "yes", with which a request accepts that a new login like the author's would be refused.
/// Returns null, or an answer that describes the error.
control_json control_read_acceptance(const control_json& request, bool& accepted);

/// Returns the announcements of the reasons why a new login would be refused.
std::vector<std::string> control_lock_out_warnings(const std::vector<std::string>& reasons);

/// Returns the message of a refusal for these reasons.
std::string control_lock_out_message(const std::vector<std::string>& reasons);

/// Returns the answer that refuses a change for these reasons. Its member "lock_out" contains the announcements.
control_json control_refuse_lock_out(const std::vector<std::string>& reasons);

#endif
