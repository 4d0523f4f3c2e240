/// Telemetry producer: pushes events to subscribers.
#ifndef PLATFORM_TELEMETRY_PRODUCER_H
#define PLATFORM_TELEMETRY_PRODUCER_H

#include "platform/datastore.h"
#include "platform/event_manager.h"
#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

/// Opens a producer under a name for one path.
platform_status telemetry_producer_init(const char* name, const char* path, struct event_manager* manager);

/// Publishes one event of the path. `fill` makes its record, as for a read.
platform_status telemetry_producer_publish(const char* path, datastore_provider_callback fill, void* context);

#ifdef __cplusplus
}
#endif

#endif
