/// Warnings about entries of access lists that do not do what they seem to say.
#ifndef LINUX_ACCESS_LISTS_ACL_ENTRY_WARNINGS_H
#define LINUX_ACCESS_LISTS_ACL_ENTRY_WARNINGS_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "linux/access_lists/acl_service_internal.h"

/// The VRFs in which the services use a list: SSH, then NETCONF.
using acl_users = std::array<std::vector<std::string>, 2>;

/// Warns of the entries that make no rule, although they concern TCP, and of those that close the ports of other
/// services. `list` names the list in the warnings. If nobody uses the list, it is judged for both services. Nothing if the
/// agent has registered no verifier. May throw std::bad_alloc.
std::vector<std::string> acl_entry_warnings(uint32_t family, const std::string& list,
                                            const std::vector<acl_stored_entry>& entries, const acl_users& users);

#endif
