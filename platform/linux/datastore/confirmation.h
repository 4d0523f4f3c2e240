/// The confirmation that a commit awaits: unless it is given in time, the commit is to be undone.
///
/// It is stored in the same transaction as the commit, with its deadline, so that it survives the agent and the machine. The
/// deadline is measured by the time since the machine started, which nobody can set. After a restart of the machine the
/// clock decides, within the limits of the time that was given.
///
/// All functions must be called on the event loop's thread, and may throw std::bad_alloc.
#ifndef LINUX_DATASTORE_CONFIRMATION_H
#define LINUX_DATASTORE_CONFIRMATION_H

#include <cstdint>
#include <string>

#include "platform/status.h"

/// A moment by both clocks.
struct datastore_moment {
    std::string boot;     ///< identifies the run of the machine
    uint64_t uptime = 0;  ///< seconds since the machine started
    int64_t time = 0;     ///< seconds since the epoch
};

datastore_moment datastore_present_moment();

struct datastore_confirmation {
    uint64_t number = 0;   ///< of the commit; undoing it returns to the configuration before it
    uint64_t seconds = 0;  ///< that were given
    datastore_moment begin;
};

/// The seconds that are left; 0 when the time is over.
uint64_t datastore_confirmation_left(const datastore_confirmation& confirmation, const datastore_moment& now);

/// The confirmation that is awaited. DATASTORE_NO_SUCH_ITEM if there is none.
platform_status datastore_confirmation_get(datastore_confirmation& confirmation);

/// After a restart of the machine, measures what is left of the time from now on. To be called when the agent starts.
platform_status datastore_confirmation_resume();

struct datastore_state;

/// Stores the confirmation that a commit awaits. Within the transaction of that commit.
platform_status confirmation_store(const datastore_state& state, const datastore_confirmation& confirmation);

/// Removes it. Within the transaction that undoes the commit.
platform_status confirmation_remove(const datastore_state& state);

/// Has `notify` called after each commit that must be confirmed. Null ends that.
void datastore_on_confirmation_awaited(void (*notify)());

/// Confirms the commit.
platform_status datastore_confirm();

/// "commit 7 by alice of 2026-01-31T12:00:00Z must be confirmed first, until ...": why other commits are refused.
std::string datastore_confirmation_demand(const datastore_confirmation& confirmation);

#endif
