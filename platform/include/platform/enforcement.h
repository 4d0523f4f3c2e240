/// Enforcement: whether the configuration is in force, and the repair of what is not.
///
/// A subject names one thing that the agent keeps as configured, in terms that the operator knows: "file PATH" for a
/// configuration file, "server VRF", "unit VRF", "rules VRF ssh ipv4", "key USER", "banner", "PAM file". The platform adds
/// the paths of items that an applier could not apply. All reports about one thing use the same subject.
///
/// All operations and callbacks run on the event loop's thread. Texts are copied; errno is left alone.
#ifndef PLATFORM_ENFORCEMENT_H
#define PLATFORM_ENFORCEMENT_H

#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

/// The subject is not as configured. Reported after a handler has done its work, also for a failure that the handler
/// itself ignores. During a commit this becomes part of the commit's answer, which is then "stored, not in force";
/// it is always recorded, logged if it is new, shown to operators and repaired eventually. A later report about the
/// same subject replaces the reason.
void enforcement_failed(const char* subject, const char* reason);

/// The subject is as configured again. Also accepted for a subject that was not reported.
void enforcement_restored(const char* subject);

/// Takes one difference between the configuration and the machine.
typedef void (*enforcement_difference_sink)(const char* subject, const char* text, void* sink_context);

struct enforcement_callbacks {
    /// Compares the configuration with files, servers, units, rules and keys. Reports each difference to `sink`, including
    /// those that it then removes, which it tries if `repair` is not 0. Returns how many differences remain, or -1 if they
    /// could not be compared.
    ///
    /// A run with `repair` also reports through enforcement_failed what it could not repair. Afterwards a recorded subject
    /// counts as in force again if the run has reported it in neither way, or if nothing remains at all.
    ///
    /// Called with 1 on a timer with back-off while anything is recorded as not in force, and when the same value is
    /// configured again meanwhile; on the operator's request with 0, or with 2, which also replaces what an administrator
    /// may have changed on purpose. Never called from within an enforcement operation, nor before the loop is reached.
    int (*reconcile)(uint32_t repair, enforcement_difference_sink sink, void* sink_context, void* context);
};

/// Registers the agent's routines, which replace earlier ones. The callbacks are copied. EINVAL without `reconcile`.
platform_status enforcement_register(const struct enforcement_callbacks* callbacks, void* context);

struct enforcement_commit_callbacks {
    /// The appliers of a commit, or those of one binding's initial scan, are about to run.
    void (*begin)(void* context);
    /// They have run, and so have the notifications. What is reported from within this call still belongs to the commit.
    void (*end)(void* context);
};

/// Registers routines to be called around each commit, which replace earlier ones. A platform need not call them; one
/// that does calls them in pairs, never nested. Between them the agent postpones all restarts of servers, which it then
/// carries out together in `end`; without them it restarts a server with each change. The callbacks are copied. EINVAL
/// unless both are given.
platform_status enforcement_announce_commits(const struct enforcement_commit_callbacks* callbacks, void* context);

#ifdef __cplusplus
}
#endif

#endif
