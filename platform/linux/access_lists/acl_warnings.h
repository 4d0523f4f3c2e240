/// Warnings about access lists for the answers to changes: ports that stay open although the operator seems to have
/// intended to close them. VRF, service and address family are always named.
#ifndef LINUX_ACCESS_LISTS_ACL_WARNINGS_H
#define LINUX_ACCESS_LISTS_ACL_WARNINGS_H

#include <string>
#include <vector>

#include "linux/datastore/datastore_internal.h"

/// Returns warnings about the VRF items and the lists of a commit that was carried out or checked: each list that does not
/// exist or is empty although a VRF item names it, each address family without a list while the other one has a list, lists
/// that a running server has lost, and entries with another effect than they seem to have. May throw std::bad_alloc.
std::vector<std::string> acl_commit_warnings(const std::vector<datastore_item_outcome>& items);

#endif
