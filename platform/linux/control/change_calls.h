/// Makes commits on behalf of a peer, answers the peer and records the commits in the audit log.
#ifndef LINUX_CONTROL_CHANGE_CALLS_H
#define LINUX_CONTROL_CHANGE_CALLS_H

#include <functional>
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
    uint64_t confirm_seconds = 0;   ///< as in datastore_commit_order
    uint64_t undone_commit = 0;     ///< likewise
    bool accepts_lock_out = false;  ///< see control_read_acceptance
    /// Set if the agent itself makes the change on behalf of someone with this authority. The peer is then the agent's own
    /// process.
    std::optional<datastore_authority> by_agent = {};
};

/// Makes a commit, or only checks it if `check_only` is set. Returns the answer to the peer.
control_json control_commit(const control_change_call& call, const std::vector<datastore_change_request>& changes);

/// Returns the change that sets an item to a JSON value, or that deletes it if the value is null. If the path or the
/// value is invalid, returns nothing and stores the reason in `refusal`.
std::optional<datastore_change_request> control_change_from_json(const std::string& path, const control_json& value,
                                                                 std::string& refusal);

/// Calls `visit` with the path of everything stored that a complete configuration replaces: all items, all access lists if
/// the configuration names any list or the folder of all lists, and all imported keys if it names any key or their folder.
/// Dumps of earlier versions name neither lists nor keys.
platform_status control_visit_replaced(const control_json& items,
                                       const std::function<void(const std::string& path)>& visit);

/// Reads the optional members that all changes have: "check", "yes" and "note". Returns null, or an answer that refuses one.
control_json control_read_change_members(const control_json& request, control_change_call& call);

/// Returns "created", "changed", "deleted" or "unchanged".
const char* control_outcome_name(datastore_outcome outcome);

#endif
