/// Requests the list of sessions from the responder. The agent's loop never waits for it longer than a moment: callers whose
/// list has not arrived yet ask again for it by its number. Callers at the same time share one list.
#ifndef PLATFORM_LINUX_CONTROL_SESSION_LISTING_H
#define PLATFORM_LINUX_CONTROL_SESSION_LISTING_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/session_list.h"

struct session_listing {
    uint64_t number = 0;  ///< of the list to ask for again
    bool is_complete = false;
    std::string problem;  ///< why there is no list; then it is complete, too
    /// Null while it is not complete, and when there is a problem.
    std::shared_ptr<const std::vector<session_list_row>> rows;
};

/// Asks the responder for a list, unless it is being asked already.
session_listing session_listing_begin();

/// Returns the list with this number, or a later one, if it has arrived.
session_listing session_listing_follow(uint64_t number);

/// For tests: sets where the responder listens and how many milliseconds it may take, and forgets all lists.
void session_listing_reset(const std::string& socket_path = session_list_socket, unsigned patience = 5000);

#endif
