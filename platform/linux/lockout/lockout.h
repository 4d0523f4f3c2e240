/// Judges whether a change would keep its own author out: whether a new login like the one through which the author is
/// logged in would succeed now, but not after the change.
#ifndef LINUX_LOCKOUT_LOCKOUT_H
#define LINUX_LOCKOUT_LOCKOUT_H

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "linux/lockout/login_session.h"

/// The list of one service that the packets of a login pass.
struct login_list {
    std::string name;   ///< empty if the VRF's item names none
    std::string rules;  ///< as acl_make_rules returns them; empty if the list restricts nobody
};

/// What a new login like the session's would meet, before or after a change.
struct login_conditions {
    bool has_server = false;          ///< a server is configured for the session's VRF and port
    std::array<login_list, 2> lists;  ///< of the session's address family: SSH's and NETCONF's
    /// The key with which the user is logged in, or all keys of the user if that is not known, as authorized_keys lines
    /// without comments; empty if the router has none.
    std::vector<std::string> keys;
};

struct login_change {
    login_conditions before;
    login_conditions after;
    /// How the change edits the file of the VRF's server: lines that begin with "-" and "+".
    std::vector<std::string> server_lines = {};
};

/// Returns one sentence for each reason why the login would be refused after the change although it is not refused now.
/// Throws std::bad_alloc.
std::vector<std::string> lockout_reasons(const login_session& session, const login_change& change);

#endif
