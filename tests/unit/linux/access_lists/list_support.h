/// Helpers for tests that need access lists.
#ifndef UNIT_LINUX_ACCESS_LISTS_LIST_SUPPORT_H
#define UNIT_LINUX_ACCESS_LISTS_LIST_SUPPORT_H

#include <optional>
#include <string>
#include <vector>

#include "linux/access_lists/acl_service_internal.h"
#include "linux/access_lists/acl_values.h"
#include "linux/datastore/datastore_internal.h"

namespace acl_test {

/// The change of a commit that stores a list.
inline datastore_change_request list_change(uint32_t family, const std::string& name,
                                            const std::vector<acl_stored_entry>& entries) {
    return {acl_list_path(family, name), std::nullopt, false, acl_list_encode(entries)};
}

/// Stores a list by a commit of its own.
inline platform_status store_list(uint32_t family, const std::string& name,
                                  const std::vector<acl_stored_entry>& entries) {
    return datastore_commit({list_change(family, name, entries)}, false).status;
}

inline platform_status delete_list(uint32_t family, const std::string& name) {
    return datastore_commit({{acl_list_path(family, name), std::nullopt}}, false).status;
}

}  // namespace acl_test

#endif
