/// What a comparison of the configuration with the machine finds.
#ifndef RECONCILE_FINDINGS_H
#define RECONCILE_FINDINGS_H

#include <cstddef>
#include <string>

#include "platform/enforcement.h"

/// One comparison, which may also remove what it finds.
struct comparison {
    bool repair;
    enforcement_difference_sink sink;
    void* sink_context;
    int remaining = 0;  ///< differences that are left
};

/// Reports a difference. Returns whether it is to be removed; if not, it remains.
bool found(comparison& run, const std::string& subject, const std::string& text);

/// A difference could not be removed.
void not_removed(comparison& run, const std::string& subject, const std::string& reason);

/// The text of the present errno.
std::string error_text();

#endif
