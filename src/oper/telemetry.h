/// OpenConfig telemetry of the SSH server: readable through a provider, published on change.
#ifndef OPER_TELEMETRY_H
#define OPER_TELEMETRY_H

#include "platform/status.h"

/// Registers the provider and its record. Returns 0, or the error after logging it.
platform_status ocssh_edm_init();

/// Creates the producer. Failures are logged; the agent then works without publishing events.
void ocssh_telemetry_init();

/// Publishes one event with the state in force.
void ocssh_telemetry_publish();

#endif
