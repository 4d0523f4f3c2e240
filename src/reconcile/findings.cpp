#include "reconcile/findings.h"

#include <cerrno>

#include "platform/status.h"

bool found(comparison& run, const std::string& subject, const std::string& text) {
    run.sink(subject.c_str(), text.c_str(), run.sink_context);
    if (!run.repair) {
        run.remaining++;
    }
    return run.repair;
}

void not_removed(comparison& run, const std::string& subject, const std::string& reason) {
    run.remaining++;
    enforcement_failed(subject.c_str(), reason.c_str());
}

std::string error_text() {
    return platform_status_text(static_cast<platform_status>(errno));
}
