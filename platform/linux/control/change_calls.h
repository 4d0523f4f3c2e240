/// Commits on behalf of a peer, with their answers and their lines in the audit log.
#ifndef LINUX_CONTROL_CHANGE_CALLS_H
#define LINUX_CONTROL_CHANGE_CALLS_H

#include <optional>
#include <string>
#include <vector>

#include "control_protocol/json_text.h"
#include "linux/control/peer.h"
#include "linux/datastore/datastore_internal.h"

struct control_change_call {
    const char* name;
    const control_peer& peer;
    bool check_only = false;
    std::string note = {};
    uint64_t confirm_seconds = 0;  ///< as in datastore_commit_order
    uint64_t undone_commit = 0;    ///< likewise
    /// Set if the agent itself makes the change, for someone with this authority. The peer is its own process.
    std::optional<datastore_authority> by_agent = {};
};

/// Makes a commit, or with `check_only` only checks it. Returns the answer to the peer.
control_json control_commit(const control_change_call& call, const std::vector<datastore_change_request>& changes);

/// The change that gives an item a value in JSON; null deletes it. On refusal, returns nothing and stores the reason in
/// `refusal`.
std::optional<datastore_change_request> control_change_from_json(const std::string& path, const control_json& value,
                                                                 std::string& refusal);

/// Reads the optional member "note" of a request. Returns null or the answer that refuses it.
control_json control_read_note(const control_json& request, std::string& note);

/// "created", "changed", "deleted" or "unchanged".
const char* control_outcome_name(datastore_outcome outcome);

#endif
