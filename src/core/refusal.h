/// How a verifier refuses a change.
#ifndef CORE_REFUSAL_H
#define CORE_REFUSAL_H

#include <cstdint>

#include "core/trace.h"
#include "platform/status.h"

/// Reports to the datastore that a change is refused: sets `*accepted` to 0 and `*error_text` to a newly allocated copy
/// of the text for the operator, cut to 511 characters. Also prints and traces the text. Returns `status`.
platform_status refuse_change(char** error_text, uint32_t* accepted, platform_status status,
                              trace_error_point trace_point, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

#endif
