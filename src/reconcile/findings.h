/// The findings of a comparison of the configuration with the machine.
#ifndef RECONCILE_FINDINGS_H
#define RECONCILE_FINDINGS_H

#include <cstddef>
#include <string>

#include "platform/enforcement.h"

/// One comparison, which may also remove the differences it finds.
struct comparison {
    bool repair;
    enforcement_difference_sink sink;
    void* sink_context;
    bool at_start = false;    ///< the configuration has just been applied by this process
    bool on_request = false;  ///< an operator asks, also about what an administrator may have changed on purpose
    int remaining = 0;        ///< remaining differences
};

/// Reports a difference. Returns whether the caller should remove it; if not, it remains.
bool found(comparison& run, const std::string& subject, const std::string& text);

/// A difference could not be removed.
void not_removed(comparison& run, const std::string& subject, const std::string& reason);

/// The text of the current errno.
std::string error_text();

#endif
