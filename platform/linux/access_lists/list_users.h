/// Where an access list is in use.
#ifndef LINUX_ACCESS_LISTS_LIST_USERS_H
#define LINUX_ACCESS_LISTS_LIST_USERS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct acl_list_user {
    const char* service;  ///< "ssh" or "netconf"
    std::string vrf_name;
};

/// Returns the services whose items in the configuration bind a list. Throws std::bad_alloc.
std::vector<acl_list_user> acl_list_users(uint32_t family, std::string_view name);

#endif
