/// The confirmation that a commit awaits. A commit that is not confirmed in time is undone.
///
/// The confirmation and its deadline are stored in the same transaction as the commit, so they survive a restart of the
/// agent and of the machine. The deadline is measured by the machine's uptime, which nobody can set. After a restart of
/// the machine, the remaining time is determined by the clock, but it is never longer than the time that was given.
///
/// All functions must be called on the event loop's thread, and may throw std::bad_alloc.
#ifndef LINUX_DATASTORE_CONFIRMATION_H
#define LINUX_DATASTORE_CONFIRMATION_H

#include <cstdint>
#include <optional>
#include <string>

#include "platform/status.h"

/// A moment as measured by the uptime and by the clock.
struct datastore_moment {
    std::string boot;     ///< the identifier of the present boot
    uint64_t uptime = 0;  ///< seconds since the machine started
    int64_t time = 0;     ///< seconds since the epoch
};

datastore_moment datastore_present_moment();

struct datastore_confirmation {
    uint64_t number = 0;   ///< the number of the commit; undoing it restores the configuration before it
    uint64_t seconds = 0;  ///< the time for the confirmation, counted from `begin`
    datastore_moment begin;
};

/// Returns the seconds that remain, or 0 if the time is over.
uint64_t datastore_confirmation_left(const datastore_confirmation& confirmation, const datastore_moment& now);

/// Reads the confirmation that is awaited. Returns DATASTORE_NO_SUCH_ITEM if there is none.
platform_status datastore_confirmation_get(datastore_confirmation& confirmation);

/// After a restart of the machine, determines the remaining time and measures it from now on. Must be called when the agent
/// starts. Returns DATASTORE_NO_SUCH_ITEM if no confirmation is awaited.
platform_status datastore_confirmation_resume();

struct datastore_state;

/// Stores the confirmation that a commit awaits. Must be called within the transaction of that commit.
platform_status confirmation_store(const datastore_state& state, const datastore_confirmation& confirmation);

/// Removes the confirmation. Must be called within the transaction that undoes the commit.
platform_status confirmation_remove(const datastore_state& state);

/// Registers `notify`, which is then called after each commit that must be confirmed. Null cancels the registration.
void datastore_on_confirmation_awaited(void (*notify)());

/// Confirms the commit that awaits its confirmation.
platform_status datastore_confirm();

/// Returns the reason why other commits are refused: "commit 7 by alice of 2026-01-31T12:00:00Z must be confirmed first,
/// until ...".
std::string datastore_confirmation_demand(const datastore_confirmation& confirmation);

/// A commit that is undone unless it is confirmed in time.
struct datastore_trial {
    uint64_t number = 0;
    std::string user;   ///< who made the commit; empty if the history does not contain it
    std::string note;   ///< the note that belongs to the commit; may be empty
    int64_t until = 0;  ///< when the commit is undone, in seconds since the epoch
};

/// Returns the commit that awaits its confirmation, or nothing if there is none.
std::optional<datastore_trial> datastore_commit_on_trial();

#endif
