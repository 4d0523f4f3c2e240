/// Records as JSON, for the control socket and for telemetry.
#ifndef LINUX_DATASTORE_RECORD_JSON_H
#define LINUX_DATASTORE_RECORD_JSON_H

#include "control_protocol/json_text.h"
#include "linux/datastore/datastore_internal.h"

/// The record as an object by the schema's field names: lists and arrays as arrays, embedded records as objects, numbers
/// and enumerations as numbers (-1 for an unknown enumeration value), flags as booleans, texts as strings (empty if
/// absent), addresses in dotted form, bytes as an array of numbers, absent records and optional values as null. Returns
/// the codec's error and leaves `json` unchanged when the bytes are not such a record. May throw std::bad_alloc.
platform_status record_to_json(const datastore_record& record, control_json& json);

#endif
