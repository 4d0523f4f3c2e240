/// The answer to a session query.
#ifndef OPENSSH_SESSIONS_SNAPSHOT_H
#define OPENSSH_SESSIONS_SNAPSHOT_H

#include "openssh/reporter/session_facts.h"
#include "platform/session_query.h"

namespace openssh {

/// Builds the answer from the known facts; unknown fields stay empty. `now` is in seconds since boot, `bytes` the
/// connection's current byte counters.
session_snapshot make_snapshot(const session_facts& facts, uint64_t now, const byte_counters& bytes);

}  // namespace openssh

#endif
