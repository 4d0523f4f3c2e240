/// OpenConfig telemetry of the SSH server: read through a provider, pushed when it changes.
#ifndef OPER_TELEMETRY_H
#define OPER_TELEMETRY_H

#include "platform/status.h"

/// Registers the provider and its record. Returns 0, or the error after it was logged.
platform_status ocssh_edm_init();

/// Opens the producer. Failures are logged; the agent does without events then.
void ocssh_telemetry_init();

/// Publishes one event with the state in force.
void ocssh_telemetry_publish();

#endif
