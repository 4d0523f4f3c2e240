/// Brings the machine back to the configuration, whatever happened to either.
///
/// Files, units and servers are compared with what is configured. Start-up removes the differences that an earlier
/// process left when it died; later runs repair what could not be done at once and serve the operator's calls.
#ifndef RECONCILE_RECONCILIATION_H
#define RECONCILE_RECONCILIATION_H

#include <cstdint>

#include "platform/enforcement.h"

/// Start-up, after the configuration has been applied: removes all differences and registers the comparison with the
/// platform. Differences that cannot be removed are reported to the platform, which retries.
void reconcile_at_start();

/// The comparison, as a callback of the platform (enforcement_callbacks).
int reconcile(uint32_t repair, enforcement_difference_sink sink, void* sink_context, void* context);

#endif
