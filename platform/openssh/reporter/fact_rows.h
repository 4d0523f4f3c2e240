/// Derives facts about a session from log lines of sshd and ssh.
///
/// Part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_FACT_ROWS_H
#define OPENSSH_REPORTER_FACT_ROWS_H

#include "openssh/reporter/log_line.h"
#include "openssh/reporter/session_facts.h"

namespace openssh {

/// The circumstances in which a line was logged.
struct line_context {
    /// The line comes from the process that is queried for the session, not from the one that works for the user.
    bool from_monitor = true;
    /// Seconds since boot.
    uint64_t now = 0;
    byte_counters bytes = {};
    /// The controlling terminal of ssh's user.
    uint32_t own_terminal = no_terminal;
};

/// Adds the facts that the line contains. Returns false if it contains none, or none that is accepted from its sender.
bool learn_from_line(session_facts& facts, const log_line& line, const line_context& context);

/// Whether the line reports new keys, so that the byte counters should be read.
bool counts_bytes(const log_line& line);

}  // namespace openssh

#endif
