/// The calls of the control socket, as ssh_cfg_ctl makes them.
///
/// Request members beside "call":
///   Changes of the configuration take a note (optional; a text for the history).
///   set     path, value (any JSON value) or word (the value as typed: JSON, or a bare word where the schema expects a
///           string); neither for an item without fields, or of which only the existence matters
///   delete  path, absent_ok (optional; true: what is absent is unchanged, not an error)
///   load    items (an object {path: value, or null to delete}; access lists and imported keys included), check (optional; true: verify only), absent_ok, replace (optional;
///           true: delete what the items do not name), confirm (optional: the minutes within which confirm must follow)
///   rollback  number (of the commit after which the configuration was as wanted), check (optional, as for load)
///   confirm   nothing
///   history   nothing
///   diff      from and to (optional: numbers of commits), or items (to be compared with the configuration as a whole)
///   get     path
///   list    path, all (optional; true: what can be configured)
///   help    path (or words of descriptions), see help_call.cpp
///   complete  what, word, path, see complete_call.cpp
///   dump, vrf_list, verify, repair
///   status  check (optional; true: the result is "failed" if anything is not as configured)
///   show    path; answers with "record", the records' name, beside "data"
///   watch   sessions (optional; true: logins, logouts and failed logins instead of telemetry): after the answer, frames
///           with events follow until either side hangs up (event_queue.h)
///   vrf_unblock  name
///   debug   nothing: lists the flags; or flag and on
///   trace   buffer
///   acl_set     family, name, and lines (texts) or entries (objects)
///   acl_delete  family, name, absent_ok
///   acl_list    nothing
///   acl_show    family, name; answers with "lines" beside "data"
///   key_list    nothing
///   key_import  user, text (a key as OpenSSH writes it)
///   key_delete  user, absent_ok
///   local_show   vrf (optional)
///   local_read   vrf (or "all")
///   local_check  vrf, text (optional: the text of that file instead of the present one)
///   local_set    vrf, text, expected (optional: the text that it replaces), see local_calls.cpp
///   local_apply  nothing
///   sessions      number (of a list that was asked for before, optional)
///   session_end   one of id, pid (numbers), user, vrf (texts); the rest is set by "next"
///   failures      lines (optional; the most failed logins, 1 to 1000), vrf (optional), number (of a reading that was
///                 asked for before, optional)
///   reload        timeout (seconds, optional)
///   reload_state  number
/// A path of set, delete, get, list or show may be given by its end; if that is ambiguous, the answer has result "usage" and
/// "candidates". The answer to a change of such an item has its "path". The paths of load are absolute.
/// With "progress" (true) reports come before the answer if that takes longer than a second: objects with "progress", an
/// object with "work", "done", "total", and "waiting" (true while the request waits for another one).
/// "in_progress" in the data of status is such an object, or null when nothing is.
/// An answer with "next" is not final: the client makes the request in it after a short pause.
/// On a standby node status reports that; changes are refused, and there is no data that only a primary node has.
/// "data" of the answer: get the value, list an array of names (with all, of objects with name,
/// configured, value or, of a folder, items, and meaning), dump an object like `items`, show a record or an array of
/// records, watch an array with the notifications of the state in force, vrf_list, debug and trace arrays of objects,
/// status an object, vrf_unblock an array of the services that were opened. An entry of a trace has time, point (the number), name (null for a point without a description),
/// arguments (an object by label) and, if the argument "status" is a failure, error (its text). Commits answer with "items" (path and outcome)
/// and, if they have changed anything, "commit", their number in the history. "data" of history is an array of objects, the
/// latest commit first; "data" of diff an array of objects with path, outcome, previous and value.
/// The answer to a change, unless it has data, says in "changed" whether it changed (or would change) anything.
/// Changes that are stored but not all in force answer with result "not_in_force" and "not_in_force" (an array of objects
/// with subject and reason). "data" of verify is an array of differences (objects with subject and text), and the result
/// is "failed" when there are any. "data" of repair has two such arrays, "repaired" and "remaining"; the result is "failed"
/// when anything remains.
#ifndef LINUX_CONTROL_CALLS_H
#define LINUX_CONTROL_CALLS_H

#include "control_protocol/json_text.h"
#include "linux/control/peer.h"

/// Answers a request, which is an object with a string "call". May throw std::bad_alloc.
control_json control_call(const control_json& request, const control_peer& peer);

/// Whether a request may be answered while a handler of the agent is at work, because it reads nothing but what the platform
/// knows for itself.
bool control_may_be_answered_meanwhile(const control_json& request);

/// What the agent is working on, if that was told, else null: an object with "work" in words, and "done" of "total" items.
control_json control_progress();

#endif
