/// Answers of the control socket: an object with "result" (a name below), "message" for people (absent when there is
/// nothing to say), "data" (what a reading call has read), and members of the call's own, among them "warnings".
#ifndef CONTROL_PROTOCOL_ANSWER_H
#define CONTROL_PROTOCOL_ANSWER_H

#include <cstdint>
#include <string>
#include <string_view>

#include "control_protocol/json_text.h"

/// What became of a call. The numbers are the exit statuses of ssh_cfg_ctl.
enum class control_result : uint8_t {
    done = 0,
    failed = 1,
    usage = 2,        ///< no such call, or a member of the request is missing or of the wrong type
    unreachable = 3,  ///< the tool's own: no answer came
    no_data = 4,
    refused = 5  ///< by the schema or a verifier, or because of what the request says
};

/// The name of a result, as answers carry it.
const char* control_result_name(control_result result);

/// The result of that name; failed for one that is not known.
control_result control_result_of_name(std::string_view name);

/// An answer with a result and, unless empty, a message.
control_json control_answer(control_result result, std::string_view message = {});

/// The version of this build, as the tool and the status call show it.
const char* control_version();

#endif
