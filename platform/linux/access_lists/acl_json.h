/// Access-list entries as JSON objects with the field names of their records.
#ifndef LINUX_ACCESS_LISTS_ACL_JSON_H
#define LINUX_ACCESS_LISTS_ACL_JSON_H

#include <string>
#include <vector>

#include "control_protocol/json_text.h"
#include "linux/access_lists/acl_rule.h"

/// Reads one entry. Numbers must fit their fields; addresses are text; enumerations are names or numbers; an omitted
/// field is zero or empty. On failure, `error` names the invalid field and what is expected. May throw std::bad_alloc.
bool acl_entry_from_json(uint32_t family, const control_json& json, acl_stored_entry& entry, std::string& error);

/// An entry as such an object, with enumerations by name and addresses as text. Returns 0 or the codec's error.
platform_status acl_entry_to_json(uint32_t family, const acl_stored_entry& entry, control_json& json);

/// Reads the entries of a list from an array of such objects. An entry without a sequence number gets the previous entry's
/// plus ten. On failure, `error` names the entry. May throw std::bad_alloc.
bool acl_entries_from_json(uint32_t family, const control_json& array, std::vector<acl_stored_entry>& entries,
                           std::string& error);

/// Converts the entries of a list to an array of such objects. Returns 0 or the codec's error.
platform_status acl_entries_to_json(uint32_t family, const std::vector<acl_stored_entry>& entries, control_json& array);

#endif
