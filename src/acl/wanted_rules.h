/// The rules that an access list of the datastore should have in the kernel.
#ifndef ACL_WANTED_RULES_H
#define ACL_WANTED_RULES_H

#include <cstdint>
#include <string>

#include "platform/status.h"

/// Makes the nftables commands that load a list for a type (0 to 3). They also declare their table. Returns
/// DATASTORE_NO_SUCH_LIST if the list does not exist, or the error of the datastore or of the codec. May throw
/// std::bad_alloc.
platform_status make_wanted_rules(uint32_t type, const char* acl_name, std::string* commands);

#endif
