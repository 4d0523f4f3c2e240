/// Judges proposed changes of the configuration, with its access lists and the users' keys, by what they do to new logins.
#ifndef LINUX_LOCKOUT_PROPOSED_CHANGE_H
#define LINUX_LOCKOUT_PROPOSED_CHANGE_H

#include <string>
#include <vector>

#include "linux/datastore/datastore_internal.h"
#include "linux/lockout/login_session.h"

/// Judges a commit. `rehearsal` may be null; it must contain the changed lines of the files. Must be called before the commit
/// is stored. Returns one sentence for each reason why a new login like the session's would be refused afterwards although it
/// is not refused now. May throw std::bad_alloc.
std::vector<std::string> lockout_of_commit(const login_session& session,
                                           const std::vector<datastore_item_outcome>& items,
                                           const rehearsal_report* rehearsal);

#endif
