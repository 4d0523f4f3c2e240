/// Warnings about users' keys for the answers to changes.
#ifndef LINUX_CONTROL_KEY_WARNINGS_H
#define LINUX_CONTROL_KEY_WARNINGS_H

#include <string>
#include <vector>

#include "linux/datastore/datastore_internal.h"

/// Returns whether FIPS mode is configured.
bool control_is_fips_mode();

/// Returns warnings about the keys that a commit has added or would add: a key that another user has, too, and a key that the
/// servers do not accept in FIPS mode; and a warning about the present keys if the commit turns FIPS mode on. May throw
/// std::bad_alloc.
std::vector<std::string> control_key_warnings(const std::vector<datastore_item_outcome>& items);

/// Returns what the refusal of a user's configured key adds if the key is of another type than RSA: the other way to add it.
/// Otherwise returns an empty string.
std::string control_key_hint(const std::vector<datastore_change_request>& changes, const std::string& refused_path);

#endif
