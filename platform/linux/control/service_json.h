/// Access lists and imported keys as JSON: a list is an array of its entries, a user's keys are an array of authorized_keys
/// lines. The keys may also be given as one string, the text of an authorized_keys file.
///
/// All functions may throw std::bad_alloc.
#ifndef LINUX_CONTROL_SERVICE_JSON_H
#define LINUX_CONTROL_SERVICE_JSON_H

#include <optional>
#include <string>

#include "control_protocol/json_text.h"
#include "linux/datastore/datastore_internal.h"

/// Converts a value to the stored form of the list or the imported keys with this path. If the value is invalid, returns nothing
/// and stores the reason, without the path, in `refusal`.
std::optional<std::string> control_service_value_from_json(const std::string& path, const control_json& json,
                                                           std::string& refusal);

/// Converts a stored list or imported keys to JSON. Returns false if it is damaged.
bool control_service_value_to_json(const std::string& path, const datastore_stored& stored, control_json& json);

#endif
