/// ACL service: named IPv4 and IPv6 access lists and notifications of their changes.
///
/// The entries of the lists are read through the datastore (/oper/ipv4-acl/, /oper/ipv6-acl/) as records with the
/// service's own schemas. A list without entries is reported everywhere like one that does not exist.
#ifndef PLATFORM_ACL_SERVICE_H
#define PLATFORM_ACL_SERVICE_H

#include <netinet/in.h>
#include <stdint.h>

#include "platform/event_manager.h"
#include "platform/record_codec.h"
#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

struct acl_handle;

enum { ACL_NAME_SIZE = 65 };

/// A list has changed.
struct acl_change_notice {
    char acl_name[ACL_NAME_SIZE];
    uint32_t present;  ///< 0 if the list was removed or emptied
};

/// Returns 0 if the change was applied, otherwise 1.
typedef int (*acl_change_callback)(const struct acl_change_notice* notice);

enum { ACL_FAMILY_IPV4 = 4, ACL_FAMILY_IPV6 = 6 };

/// A handle on a list by name; the list need not exist yet. The caller releases it with acl_service_release.
platform_status acl_service_get_list(uint32_t family, const char* acl_name, struct event_manager* manager,
                                     struct acl_handle** handle);

/// Calls `callback` on every later change of the list, from the event manager.
platform_status acl_service_register_callback(struct acl_handle* handle, acl_change_callback callback);
platform_status acl_service_unregister_callback(struct acl_handle* handle, acl_change_callback callback);
void acl_service_release(struct acl_handle* handle);

/// The name of an entry's action ("permit", "deny", ...); never null.
const char* acl_service_action_name(uint32_t grant);

/// Returns non-zero if the 128-bit mask is a contiguous prefix, and then stores its length.
int acl_service_ipv6_prefix_length(const uint8_t mask[16], uint32_t* length);

/// Writes the textual form (RFC 5952) into `buffer` (INET6_ADDRSTRLEN bytes) and returns it.
const char* ipv6_address_text(const uint8_t address[16], char* buffer);

/// Descriptors of the entry records.
const struct record_descriptor* acl_service_ipv4_entry_descriptor(void);
const struct record_descriptor* acl_service_ipv6_entry_descriptor(void);

#ifdef __cplusplus
}
#endif

#endif
