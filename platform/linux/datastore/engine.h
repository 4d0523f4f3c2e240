/// The engine that keeps the datastore's items: an ordered, transactional, durable map from keys to values.
///
/// A function table, so that another engine can take SQLite's place. Functions that return a status give 0, or an errno
/// value whose reason the engine tells in words. Outputs are untouched on failure.
#ifndef LINUX_DATASTORE_ENGINE_H
#define LINUX_DATASTORE_ENGINE_H

#include <string>
#include <string_view>

#include "linux/datastore/schema.h"
#include "platform/status.h"

struct datastore_engine {
    /// Opens the database at `path`, which is made, with its folder, when there is none. What cannot be trusted (another
    /// program's file, damage, a newer version's database, one in use by another process) is refused with a text in
    /// `reason` and left as it is. The caller closes `*store`.
    platform_status (*open)(const char* path, void** store, std::string& reason);
    void (*close)(void* store);

    /// Everything between begin and commit is stored as a whole or not at all, and is on stable storage when commit
    /// returns 0. A failed commit leaves the transaction open for rollback. A put or an erase outside of a transaction
    /// is one by itself.
    platform_status (*begin)(void* store);
    platform_status (*commit)(void* store);
    void (*rollback)(void* store);

    /// DATASTORE_NO_SUCH_ITEM when there is none.
    platform_status (*get)(void* store, std::string_view key, datastore_stored& value);
    /// The first item in byte order behind `from`, or at it when `inclusive`. DATASTORE_NO_SUCH_ITEM at the end.
    platform_status (*next)(void* store, std::string_view from, bool inclusive, std::string& key,
                            datastore_stored& value);
    platform_status (*put)(void* store, std::string_view key, const datastore_stored& value);
    platform_status (*erase)(void* store, std::string_view key);

    /// Why the last operation failed, in words.
    std::string (*reason)(void* store);
};

extern const datastore_engine datastore_engine_sqlite;

#endif
