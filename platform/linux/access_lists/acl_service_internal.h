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

/// Returns the prefix of the private keys under which the lists of a family are stored; their names follow.
constexpr std::string_view acl_key_prefix(uint32_t family) {
    return family == ACL_FAMILY_IPV6 ? "acl/ipv6/" : "acl/ipv4/";
}

/// Notifies the subscribers that a list has been stored or deleted. Reports a subscriber's failure unless the subscriber
/// has reported it.
void acl_service_notify(uint32_t family, std::string_view name, bool is_present);

/// Convert the entries of a list, in ascending order of their sequence numbers, to the list's stored form and back.
/// acl_list_decode returns EBADMSG if the bytes are damaged.
std::string acl_list_encode(const std::vector<acl_stored_entry>& entries);
platform_status acl_list_decode(std::string_view bytes, std::vector<acl_stored_entry>& entries);

/// The names of all lists of a family, in byte order.
platform_status acl_list_names(uint32_t family, std::vector<std::string>& names);

/// The entries of a list. Returns DATASTORE_NO_SUCH_LIST if there is none.
platform_status acl_list_entries(uint32_t family, std::string_view name, std::vector<acl_stored_entry>& entries);

/// Whether a list may have this name: 1 to 64 letters, digits, '_', '-' and '.', not beginning with '-' or '.'.
bool acl_name_is_valid(std::string_view name);

#endif
