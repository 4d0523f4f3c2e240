/// The session numbers, which stay the same when the responder is restarted.
#ifndef OPENSSH_SESSIONS_SESSION_NUMBERS_H
#define OPENSSH_SESSIONS_SESSION_NUMBERS_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace openssh {

/// One file per session, named after its key, and one holding the last number assigned.
struct session_numbers {
    std::string folder;
    uint32_t last = 0;
};

/// Reads the last number assigned.
void load_session_numbers(session_numbers& numbers);

/// Returns the session's number; a new session gets the next one. Failures to store the number are ignored.
uint32_t session_number(session_numbers& numbers, const std::string& key);

void forget_session_number(const session_numbers& numbers, const std::string& key);

/// Forgets the numbers whose keys are not in use.
void forget_unused_numbers(const session_numbers& numbers, const std::function<bool(std::string_view key)>& in_use);

}  // namespace openssh

#endif
