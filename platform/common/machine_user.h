/// Users of the machine, by name.
#ifndef PLATFORM_COMMON_MACHINE_USER_H
#define PLATFORM_COMMON_MACHINE_USER_H

#include <cstdint>
#include <string>

enum class machine_user : unsigned char {
    unknown,      ///< there is no user of this name
    ordinary,     ///< has a user ID other than 0
    superuser,    ///< has user ID 0, whatever the name
    undetermined  ///< the machine's lists of users cannot be read
};

/// Looks a user up. May throw std::bad_alloc.
machine_user machine_user_find(const std::string& name);

/// Returns the name of a user, or an empty string if the user does not exist or the lookup fails. May throw
/// std::bad_alloc.
std::string machine_user_name(uint32_t user_id);

#endif
