/// The history of commits: the latest ones are kept, each stored in the same transaction as the changes themselves.
///
/// The commits are numbered from 1. "The configuration after commit N" exists as long as all later commits are kept; number
/// 0 is the configuration before the first one.
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

/// Who makes a commit, and why.
struct datastore_author {
    std::optional<uint32_t> uid;  ///< nothing for the agent itself
    std::string user;             ///< name of the user, if there is one
    std::string call;             ///< what the user requested, such as "load"
    std::string note;             ///< the user's own words
};

struct datastore_kept_change {
    std::string key;  ///< path of the item
    std::optional<datastore_stored> previous;
    std::optional<datastore_stored> value;
};

struct datastore_kept_commit {
    uint64_t number = 0;
    int64_t time = 0;  ///< seconds since the epoch
    datastore_author author;
    std::vector<datastore_kept_change> changes;  ///< in byte order of their keys
};

/// The user's name, or the number if there is no name; "agent" for the agent itself.
std::string datastore_author_name(const datastore_author& author);

/// A commit as stored. EBADMSG if the bytes are not such a commit; `commit` is then unchanged.
std::string history_encode(const datastore_kept_commit& commit);
platform_status history_decode(std::string_view bytes, datastore_kept_commit& commit);

struct datastore_state;

/// Finds the number of the latest commit in the database, which has just been opened.
platform_status history_open(datastore_state& state);

/// Appends a commit, and now and then removes those in excess. Within the transaction of the commit itself.
platform_status history_append(const datastore_state& state, const datastore_kept_commit& commit);

/// Sets how many commits are kept, at least 1, and removes those in excess.
void datastore_keep_commits(uint32_t count);

/// The number of the latest commit; 0 if there has been none.
uint64_t datastore_last_commit();

/// Calls `visit` for each kept commit, the latest first, until it returns false. EBADMSG if one is damaged.
platform_status datastore_visit_history(const std::function<bool(const datastore_kept_commit& commit)>& visit);

/// What a configuration of the past had at each key that has been changed since; nothing where there was no item.
using datastore_past = std::map<std::string, std::optional<datastore_stored>>;

/// Finds the configuration after commit `number`. DATASTORE_NO_SUCH_ITEM if there has been no such commit or a later one is
/// no longer kept.
platform_status datastore_past_at(uint64_t number, datastore_past& past);

#endif
