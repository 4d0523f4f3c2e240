/// Derives what became of an attempt to log in from what sshd logs about it.
///
/// Part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_LOGIN_ATTEMPT_H
#define OPENSSH_REPORTER_LOGIN_ATTEMPT_H

#include <cstdint>
#include <string_view>

namespace openssh {

/// Everything that a client does on one connection until it is logged in or the connection ends. Texts that do not fit are
/// truncated.
struct login_attempt {
    char user[64] = {};      ///< as the client named it; empty if it has not
    char methods[64] = {};   ///< those refused, in the order of their first try, separated by commas
    char key[96] = {};       ///< type and fingerprint of the last key that was refused, or of the accepted one
    char accepted[40] = {};  ///< the method with which the user was let in
    uint32_t refused = 0;    ///< tries
    /// Why the latest try was refused, or why this user cannot log in at all.
    char cause[128] = {};
    bool is_cause_final = false;
    /// What was logged about the try whose refusal has not been logged yet.
    char next_cause[128] = {};
    /// Why the server ended the connection; empty if the client did.
    char ending[96] = {};
    char detail[256] = {};
};

/// Learns from a line of sshd's log: its message without severity and place. `from_monitor` is false for a line of the
/// process that serves the client before the login, which knows nothing about success. Returns whether it was of interest.
bool follow_attempt(login_attempt& attempt, std::string_view message, bool from_monitor);

/// Why the attempt has failed, for people; empty if there was none, because the client left without naming a user.
struct failure_reason {
    char text[256] = {};
};
failure_reason reason_of(const login_attempt& attempt);

/// The message of a line that was logged without a place, without its severity and the mark of the process before the
/// login, to which `before_authentication` is set.
std::string_view plain_message(std::string_view written, bool& before_authentication);

}  // namespace openssh

#endif
