/// Warnings about entries of access lists that have another effect than they seem to.
#ifndef LINUX_ACCESS_LISTS_ACL_ENTRY_WARNINGS_H
#define LINUX_ACCESS_LISTS_ACL_ENTRY_WARNINGS_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "linux/access_lists/acl_service_internal.h"

/// The VRFs in which the services use a list: SSH, then NETCONF.
using acl_users = std::array<std::vector<std::string>, 2>;

/// Warns about entries for TCP that make no rule, and about entries that close the ports of other services. `list` names
/// the list in the warnings. An unused list is checked for both services. Empty if the agent has registered no verifier.
/// May throw std::bad_alloc.
std::vector<std::string> acl_entry_warnings(uint32_t family, const std::string& list,
                                            const std::vector<acl_stored_entry>& entries, const acl_users& users);

#endif
