/// Judges changed settings of a server by what they do to a login like the one of a session.
#ifndef LINUX_LOCKOUT_LOGIN_SETTINGS_H
#define LINUX_LOCKOUT_LOGIN_SETTINGS_H

#include <string>
#include <vector>

#include "linux/lockout/login_session.h"

/// Compares the settings before and after a change, as `sshd -T` prints them. Returns one sentence for each reason why a new
/// login like the session's would be refused afterwards although it is not refused now. Throws std::bad_alloc.
std::vector<std::string> lockout_of_settings(const login_session& session, const std::string& before,
                                             const std::string& after);

#endif
