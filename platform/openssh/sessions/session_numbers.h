/// The numbers of the sessions, which stay the same when the responder is restarted.
#ifndef OPENSSH_SESSIONS_SESSION_NUMBERS_H
#define OPENSSH_SESSIONS_SESSION_NUMBERS_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace openssh {

/// One file for each session, named by a key, and one for the number given last.
struct session_numbers {
    std::string folder;
    uint32_t last = 0;
};

/// Reads the last number given.
void load_session_numbers(session_numbers& numbers);

/// The session's number; a new session gets the next one. It is kept as far as the file system permits.
uint32_t session_number(session_numbers& numbers, const std::string& key);

void forget_session_number(const session_numbers& numbers, const std::string& key);

/// Forgets all but those in use.
void forget_unused_numbers(const session_numbers& numbers, const std::function<bool(std::string_view key)>& in_use);

}  // namespace openssh

#endif
