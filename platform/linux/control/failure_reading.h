/// Reads the events about failed logins from the journal. A child process does it, at most one at a time, and the agent's
/// loop never waits for it longer than a moment: callers whose events have not been read yet ask again by a number.
#ifndef LINUX_CONTROL_FAILURE_READING_H
#define LINUX_CONTROL_FAILURE_READING_H

#include <cstdint>
#include <string>

#include "control_protocol/json_text.h"

struct failure_query {
    uint64_t lines = 0;  ///< of the latest events
    std::string vrf;     ///< empty for all

    bool operator==(const failure_query&) const = default;
};

struct failure_reading {
    uint64_t number = 0;       ///< to ask again with; 0 if the journal is being read for somebody else
    bool is_complete = false;  ///< otherwise ask again
    std::string problem;       ///< why there are no events
    control_json events;       ///< an array, the latest last, as by login_event_json()
};

/// The most events that a query may ask for.
inline constexpr uint64_t failure_lines_max = 1000;

/// Starts reading, unless that is going on already, and waits a moment for the result. May throw std::bad_alloc.
failure_reading failure_reading_begin(const failure_query& query);

/// Returns the result with this number if it is complete. If it has been forgotten, reading starts again.
failure_reading failure_reading_follow(const failure_query& query, uint64_t number);

/// For tests: sets the program that prints the journal and how many seconds it may take, and forgets everything.
void failure_reading_reset(const std::string& program = "/usr/bin/journalctl", unsigned patience = 10);

#endif
