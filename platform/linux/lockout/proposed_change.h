/// Judges proposed changes of the configuration, the access lists and the users' keys by what they do to new logins.
#ifndef LINUX_LOCKOUT_PROPOSED_CHANGE_H
#define LINUX_LOCKOUT_PROPOSED_CHANGE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "linux/access_lists/acl_service_internal.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/lockout/login_session.h"

/// All of these must be called before the change is stored. They return one sentence for each reason why a new login like
/// the session's would be refused afterwards although it is not refused now. They may throw std::bad_alloc.

/// Judges a commit. `rehearsal` may be null; it must contain the changed lines of the files.
std::vector<std::string> lockout_of_commit(const login_session& session,
                                           const std::vector<datastore_item_outcome>& items,
                                           const rehearsal_report* rehearsal);

/// Judges the replacement of an access list's entries. A list without entries restricts nobody.
std::vector<std::string> lockout_of_list(const login_session& session, uint32_t family, std::string_view name,
                                         const std::vector<acl_stored_entry>& entries);

/// Judges the deletion of a user's imported key.
std::vector<std::string> lockout_of_key(const login_session& session, std::string_view user);

#endif
