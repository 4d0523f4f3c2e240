/// Access lists, as created and read by the rest of the Linux platform.
///
/// The datastore's private part holds each list under one key, so that a list is replaced in one durable step.
#ifndef LINUX_ACCESS_LISTS_ACL_SERVICE_INTERNAL_H
#define LINUX_ACCESS_LISTS_ACL_SERVICE_INTERNAL_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/acl_service.h"
#include "platform/event_manager.h"

inline constexpr size_t ACL_NAME_MAX = ACL_NAME_SIZE - 1;  ///< characters of a list's name

struct acl_stored_entry {
    uint32_t sequence;
    std::string record;  ///< encoded by the family's descriptor
};

/// Names of actions, by their number in an entry.
inline constexpr const char* acl_action_names[] = {"deny", "permit"};

/// Starts the ACL service: registers its record types and serves its lists through the datastore.
platform_status acl_service_start();

/// Withdraws the lists from the datastore. Contents and subscribers are kept.
void acl_service_stop();

/// Stores a list, replacing any previous one; subscribers are notified when control returns to the loop. The entries
/// are in ascending order of their sequence numbers. Returns once the list is on stable storage.
platform_status acl_list_replace(uint32_t family, std::string_view name, const std::vector<acl_stored_entry>& entries);

/// Removes a list. Returns DATASTORE_NO_SUCH_LIST if there is none.
platform_status acl_list_delete(uint32_t family, std::string_view name);

/// Notifies the subscribers of all changes now, instead of when control returns to the loop, so that the answer to a
/// change can include the result. Must not be called from within a subscriber's callback.
void acl_service_notify();

/// The names of all lists of a family, in byte order.
platform_status acl_list_names(uint32_t family, std::vector<std::string>& names);

/// The entries of a list. Returns DATASTORE_NO_SUCH_LIST if there is none.
platform_status acl_list_entries(uint32_t family, std::string_view name, std::vector<acl_stored_entry>& entries);

/// Whether a list may have this name: 1 to 64 letters, digits, '_', '-' and '.', not beginning with '-' or '.'.
bool acl_name_is_valid(std::string_view name);

#endif
