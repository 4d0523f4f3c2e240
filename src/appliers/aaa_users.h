/// The users that authentication, authorisation and accounting knows.
#ifndef APPLIERS_AAA_USERS_H
#define APPLIERS_AAA_USERS_H

#include "platform/status.h"

/// Looks for a user in the list, which has one user under each of its ordering indexes. Returns 0 and the answer; 1 when
/// an index holds several users, or the datastore's error. Failures have been logged.
platform_status find_aaa_user(const char* user_name, bool* found);

#endif
