/// The datastore of a rehearsal: what is stored, as the parent process reads it, with the commit's changes on top.
///
/// A connection to the database cannot be used by two processes, and a copy of all access lists would cost more than the
/// rehearsal. So the rehearsing process asks its parent, which waits for it anyway, for each value that it reads. What it
/// writes stays with it.
///
/// Both processes use the two ends of a stream socket. The rehearsing process ends the conversation with its report.
#ifndef LINUX_REHEARSAL_STORED_READS_H
#define LINUX_REHEARSAL_STORED_READS_H

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "linux/datastore/engine.h"
#include "platform/status.h"

/// The store of `rehearsal_engine`. Its changes hide what is stored; one without a value hides a stored item.
struct rehearsal_store {
    int connection;
    std::map<std::string, std::optional<datastore_stored>, std::less<>> changes;
};

/// The rehearsing process's engine, on a rehearsal_store. It cannot be opened, and its transactions change nothing.
extern const datastore_engine rehearsal_engine;

/// Sends the report, which ends the conversation. Called by the rehearsing process; blocks until the parent has read it.
platform_status send_report(int connection, const std::string& report);

/// Asks whether the server of a VRF runs. Called by the rehearsing process, which cannot reach the service manager.
bool ask_for_server(int connection, const std::string& vrf_name);

/// What the parent answers from.
struct rehearsal_answers {
    const datastore_engine& engine;
    void* store;
    std::function<bool(const std::string& vrf_name)> is_running;
};

/// Answers reads from `store`, and whether servers run, until the report arrives. Returns ETIMEDOUT when it has not
/// arrived at the deadline, ECONNRESET when the other process has ended without one, EMSGSIZE for a message that is too
/// long, or an errno value.
platform_status answer_questions(int connection, const rehearsal_answers& answers,
                                 std::chrono::steady_clock::time_point deadline, std::string& report);

#endif
