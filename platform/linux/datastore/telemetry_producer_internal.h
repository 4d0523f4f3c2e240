/// Telemetry events on their way from the producer to the listeners.
#ifndef LINUX_DATASTORE_TELEMETRY_PRODUCER_INTERNAL_H
#define LINUX_DATASTORE_TELEMETRY_PRODUCER_INTERNAL_H

#include <cstdint>
#include <vector>

#include "control_protocol/json_text.h"
#include "platform/telemetry_producer.h"

/// The OpenConfig model of the events and its revision. The leaves are those of the grouping system-ssh-server-config,
/// which the model takes from openconfig-system-terminal of 2018-11-21.
inline constexpr char telemetry_model[] = "openconfig-system";
inline constexpr char telemetry_model_revision[] = "2019-03-15";

/// Receives every event as a gNMI-style notification: "timestamp" (nanoseconds since the epoch), "prefix" (the path of
/// the model, RFC 7951 names) and "update", an array of objects with "path" and "val". Called on the loop; must not wait.
using telemetry_listener = void (*)(const control_json& notification, void* context);

/// Adds and removes a listener. A listener is its function and its context.
void telemetry_listen(telemetry_listener listener, void* context);
void telemetry_unlisten(telemetry_listener listener, void* context);

/// What an event would report now for each path that has a producer. Paths whose state cannot be read are omitted. May
/// throw std::bad_alloc.
std::vector<control_json> telemetry_snapshot();

/// The notification for a record of the SSH server's state, with the schema's names, at a time. Values that are missing
/// from the record, or for which the model has no name, are omitted.
control_json telemetry_notification(const control_json& record, uint64_t nanoseconds);

#endif
