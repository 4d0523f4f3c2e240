/// What lines of sshd's and ssh's log tell of a session.
#ifndef OPENSSH_SESSIONS_FACT_ROWS_H
#define OPENSSH_SESSIONS_FACT_ROWS_H

#include "openssh/reporter/log_line.h"
#include "openssh/sessions/session_facts.h"

namespace openssh {

/// What stands around a line.
struct line_context {
    /// The line came from the process that is asked for the session itself, not from the one that works for the user.
    bool from_monitor = true;
    /// Seconds since boot.
    uint64_t now = 0;
    byte_counters bytes = {};
    /// The terminal at which the user of ssh sits.
    uint32_t own_terminal = no_terminal;
};

/// Adds what the line tells. False when it tells nothing that is to be known, or nothing that may be believed from there.
bool learn_from_line(session_facts& facts, const log_line& line, const line_context& context);

/// Whether the line says that new keys are in use, so that the connection's bytes should be counted.
bool counts_bytes(const log_line& line);

}  // namespace openssh

#endif
