/// The calls of the control socket by subject, and their common functions.
#ifndef LINUX_CONTROL_CALLS_INTERNAL_H
#define LINUX_CONTROL_CALLS_INTERNAL_H

#include <string>
#include <vector>

#include "common/launch_record.h"
#include "control_protocol/answer.h"
#include "control_protocol/json_text.h"
#include "linux/control/peer.h"
#include "linux/datastore/authority.h"
#include "linux/enforcement/enforcement_internal.h"

/// Bytes of a name from a request that a message repeats.
constexpr size_t control_shown_name_max = 80;

/// The member `name` of a request if it is a string, else null.
const std::string* control_text_member(const control_json& request, const char* name);

/// Reads an optional Boolean member into `flag`, which is unchanged if the member is absent. Returns null, or an answer
/// that describes the error.
control_json control_flag_member(const control_json& request, const char* name, bool& flag);

/// On whose behalf a peer's commits are made.
datastore_authority control_peer_authority(const control_peer& peer);

/// The answer to a request with a missing member or a member of the wrong type.
control_json control_wrong_member(const char* name, const char* wanted);

/// The answer of a call that reads data.
control_json control_data_answer(control_json data);

/// "stored, not in force: SUBJECT: REASON".
std::string control_not_in_force_text(const enforcement_entry& entry);

/// Changes the answer to a stored change into one that names what is not in force: result, message and "not_in_force".
void control_tell_not_in_force(control_json& answer, const std::vector<enforcement_entry>& entries);

/// Adds warnings to the answer to a change, in the array "warnings". The change is done nevertheless.
void control_add_warnings(control_json& answer, const std::vector<std::string>& warnings);

// Changes (change_calls.cpp).
control_json control_call_set(const control_json& request, const control_peer& peer);
control_json control_call_delete(const control_json& request, const control_peer& peer);
control_json control_call_load(const control_json& request, const control_peer& peer);

// The history of commits (history_calls.cpp).
control_json control_call_history(const control_json& request, const control_peer& peer);
control_json control_call_diff(const control_json& request, const control_peer& peer);
control_json control_call_rollback(const control_json& request, const control_peer& peer);
control_json control_call_confirm(const control_json& request, const control_peer& peer);

// Reads (read_calls.cpp).
control_json control_call_get(const control_json& request, const control_peer& peer);
control_json control_call_list(const control_json& request, const control_peer& peer);
control_json control_call_dump(const control_json& request, const control_peer& peer);
control_json control_call_show(const control_json& request, const control_peer& peer);

// Help and completion (help_call.cpp, complete_call.cpp).
control_json control_call_help(const control_json& request, const control_peer& peer);
control_json control_call_complete(const control_json& request, const control_peer& peer);

// Access lists (acl_calls.cpp).
control_json control_call_acl_set(const control_json& request, const control_peer& peer);
control_json control_call_acl_delete(const control_json& request, const control_peer& peer);
control_json control_call_acl_list(const control_json& request, const control_peer& peer);
control_json control_call_acl_show(const control_json& request, const control_peer& peer);

// Local directives (local_calls.cpp).
control_json control_call_local_show(const control_json& request, const control_peer& peer);
control_json control_call_local_read(const control_json& request, const control_peer& peer);
control_json control_call_local_check(const control_json& request, const control_peer& peer);
control_json control_call_local_set(const control_json& request, const control_peer& peer);
control_json control_call_local_apply(const control_json& request, const control_peer& peer);

/// What a server was started with: whether its local directives are the present ones, and if not, why.
control_json control_local_state(const launch_record& record);

// Telemetry (watch_call.cpp).
control_json control_call_watch(const control_json& request, const control_peer& peer);

// Users' public keys (key_calls.cpp).
control_json control_call_key_list(const control_json& request, const control_peer& peer);
control_json control_call_key_export(const control_json& request, const control_peer& peer);
control_json control_call_key_import(const control_json& request, const control_peer& peer);
control_json control_call_key_delete(const control_json& request, const control_peer& peer);

// Reloads of the router (reload_calls.cpp).
control_json control_call_reload(const control_json& request, const control_peer& peer);
control_json control_call_reload_state(const control_json& request, const control_peer& peer);

// The servers' sessions (session_calls.cpp).
control_json control_call_sessions(const control_json& request, const control_peer& peer);
control_json control_call_session_end(const control_json& request, const control_peer& peer);

// Failed logins (failure_calls.cpp).
control_json control_call_failures(const control_json& request, const control_peer& peer);

// Lifting blocks of a VRF (vrf_calls.cpp).
control_json control_call_vrf_unblock(const control_json& request, const control_peer& peer);

// Comparing the configuration with the machine (enforcement_calls.cpp).
control_json control_call_verify(const control_json& request, const control_peer& peer);
control_json control_call_repair(const control_json& request, const control_peer& peer);

// The real state compared with the configuration (status_calls.cpp).
control_json control_call_status(const control_json& request, const control_peer& peer);

// The platform's state (state_calls.cpp).
control_json control_call_vrf_list(const control_json& request, const control_peer& peer);
control_json control_call_debug(const control_json& request, const control_peer& peer);
control_json control_call_trace(const control_json& request, const control_peer& peer);

#endif
