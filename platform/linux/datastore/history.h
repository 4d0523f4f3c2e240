/// The history of commits. The latest commits are kept; each is stored in the same transaction as its changes.
///
/// The commits are numbered from 1. The configuration after commit N is available as long as all later commits are kept;
/// N = 0 stands for the configuration before the first commit.
///
/// All functions must be called on the event loop's thread, and may throw std::bad_alloc.
#ifndef LINUX_DATASTORE_HISTORY_H
#define LINUX_DATASTORE_HISTORY_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "linux/datastore/schema.h"

/// Who made a commit, and why.
struct datastore_author {
    std::optional<uint32_t> uid;  ///< nothing for the agent itself
    std::string user;             ///< the name of the user; empty if there is none
    std::string call;             ///< the call that the user made, such as "load"
    std::string note;             ///< the note that belongs to the commit
};

struct datastore_kept_change {
    std::string key;  ///< path of the item or of the service's value
    std::optional<datastore_stored> previous;
    std::optional<datastore_stored> value;  ///< not kept for a service's value, which may take megabytes
};

struct datastore_kept_commit {
    uint64_t number = 0;
    int64_t time = 0;  ///< seconds since the epoch
    datastore_author author;
    std::vector<datastore_kept_change> changes;  ///< in byte order of their keys
};

/// Returns the user's name, or the user ID if there is no name, or "agent" for the agent itself.
std::string datastore_author_name(const datastore_author& author);

/// Convert a commit to its stored form and back. Decoding returns EBADMSG and leaves `commit` unchanged if the bytes are
/// not a valid commit.
std::string history_encode(const datastore_kept_commit& commit);
platform_status history_decode(std::string_view bytes, datastore_kept_commit& commit);

struct datastore_state;

/// Reads the number of the latest commit from the database, which has just been opened.
platform_status history_open(datastore_state& state);

/// Appends a commit and, at regular intervals, removes excess commits. Must be called within the transaction of the commit.
platform_status history_append(const datastore_state& state, const datastore_kept_commit& commit);

/// Sets how many commits are kept (at least 1) and removes excess commits.
void datastore_keep_commits(uint32_t count);

/// Returns the number of the latest commit, or 0 if there has been none.
uint64_t datastore_last_commit();

/// Calls `visit` for each kept commit, the latest first, until it returns false. Returns EBADMSG if a commit is damaged and
/// DATASTORE_UNAVAILABLE while the database is closed.
platform_status datastore_visit_history(const std::function<bool(const datastore_kept_commit& commit)>& visit);

/// The former values of all items that were changed after a commit, by key. An item that did not exist has no value.
using datastore_past = std::map<std::string, std::optional<datastore_stored>>;

/// Finds the configuration after commit `number`. Returns DATASTORE_NO_SUCH_ITEM if there has been no such commit or if a
/// later commit is no longer kept.
platform_status datastore_past_at(uint64_t number, datastore_past& past);

#endif
