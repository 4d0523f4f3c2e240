/// The engine that stores the datastore's items: an ordered, transactional, durable map from keys to values.
///
/// It is a function table, so that another engine can replace SQLite. Functions that return a status return 0 or an errno
/// value, which `reason` explains in words. Outputs are unchanged on failure.
#ifndef LINUX_DATASTORE_ENGINE_H
#define LINUX_DATASTORE_ENGINE_H

#include <string>
#include <string_view>

#include "linux/datastore/schema.h"
#include "platform/status.h"

/// The prefix of the keys of the history of commits.
inline constexpr std::string_view datastore_history_prefix = "history/";

struct datastore_engine {
    /// Opens the database at `path`, creating it and its directory if necessary. A database that cannot be trusted
    /// (another program's file, damage, another version, in use by another process) is refused with a text in `reason`
    /// and left unchanged. The caller closes `*store`.
    platform_status (*open)(const char* path, void** store, std::string& reason);
    void (*close)(void* store);

    /// Everything between begin and commit is stored completely or not at all, and is on stable storage when commit
    /// returns 0. A failed commit leaves the transaction open for rollback. A put or an erase outside a transaction is a
    /// transaction of its own. The end of a transaction returns ESTALE if the database's files are no longer where they
    /// were opened.
    platform_status (*begin)(void* store);
    platform_status (*commit)(void* store);
    void (*rollback)(void* store);

    /// DATASTORE_NO_SUCH_ITEM if there is none.
    platform_status (*get)(void* store, std::string_view key, datastore_stored& value);
    /// Keys that begin with a slash, keys of the history and all other keys form three separate sequences: `next` and
    /// `previous` stay in the sequence of the key that they are given.
    /// The first item in byte order after `from`, or at it when `inclusive`. DATASTORE_NO_SUCH_ITEM at the end.
    platform_status (*next)(void* store, std::string_view from, bool inclusive, std::string& key,
                            datastore_stored& value);
    /// Finds the item that immediately precedes `before` in byte order. Returns DATASTORE_NO_SUCH_ITEM if there is none.
    platform_status (*previous)(void* store, std::string_view before, std::string& key, datastore_stored& value);
    platform_status (*put)(void* store, std::string_view key, const datastore_stored& value);
    platform_status (*erase)(void* store, std::string_view key);

    /// Why the last operation failed, in words.
    std::string (*reason)(void* store);
};

extern const datastore_engine datastore_engine_sqlite;

#endif
