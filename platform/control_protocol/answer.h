/// Answers of the control socket: an object with "result" (a name below), an optional human-readable "message", "data"
/// (what a reading call has read), and call-specific members such as "items".
/// In an answer about sessions, "sessions" is the total number of sessions: an object with "incoming" and "outgoing", or
/// null if it is unknown.
/// "warnings" is an array of texts: what the operator should know although the change is done.
/// "not_in_force" names what a stored change has not put in force: an array of objects with "subject" and "reason".
#ifndef CONTROL_PROTOCOL_ANSWER_H
#define CONTROL_PROTOCOL_ANSWER_H

#include <cstdint>
#include <string>
#include <string_view>

#include "control_protocol/json_text.h"

/// The outcome of a call. The numbers are the exit statuses of ssh_cfg_ctl.
enum class control_result : uint8_t {
    done = 0,
    failed = 1,
    usage = 2,        ///< no such call, or a member of the request is missing or of the wrong type
    unreachable = 3,  ///< set by the tool itself: no answer arrived
    no_data = 4,
    refused = 5,       ///< by the schema or a verifier, or because the request is invalid
    not_in_force = 6,  ///< stored, but not all of it is in force
};

/// The name of a result, as used in answers.
const char* control_result_name(control_result result);

/// The result with that name; failed for an unknown name.
control_result control_result_of_name(std::string_view name);

/// An answer with a result and, unless empty, a message.
control_json control_answer(control_result result, std::string_view message = {});

/// The version of this build, as shown by the tool and the status call.
const char* control_version();

#endif
