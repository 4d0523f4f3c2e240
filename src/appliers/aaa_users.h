/// The users known to authentication, authorisation and accounting (AAA).
#ifndef APPLIERS_AAA_USERS_H
#define APPLIERS_AAA_USERS_H

#include "platform/status.h"

/// Looks for a user in the list, which has one user under each ordering index. Returns 0 and the answer; 1 if an index
/// holds several users, or the datastore's error. Failures are logged.
platform_status find_aaa_user(const char* user_name, bool* found);

#endif
