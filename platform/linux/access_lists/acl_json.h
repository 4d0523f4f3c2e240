/// Access-list entries as JSON objects by the field names of their records.
#ifndef LINUX_ACCESS_LISTS_ACL_JSON_H
#define LINUX_ACCESS_LISTS_ACL_JSON_H

#include <string>

#include "control_protocol/json_text.h"
#include "linux/access_lists/acl_rule.h"

/// Reads one entry. Numbers within their fields' widths; addresses as text; enumerations by name or number; a field that is
/// left out is zero or empty. Says in `error` which field is wrong and what would be right. May throw std::bad_alloc.
bool acl_entry_from_json(uint32_t family, const control_json& json, acl_stored_entry& entry, std::string& error);

/// An entry as such an object, enumerations by name and addresses as text. Returns 0 or the codec's error.
platform_status acl_entry_to_json(uint32_t family, const acl_stored_entry& entry, control_json& json);

#endif
