#include <errno.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/files.h"
#include "common/text.h"
#include "linux/datastore/engine.h"

namespace {

constexpr int application_id = 0x53434644;  ///< "SCFD", distinguishes this system's databases from others
constexpr int schema_version = 4;
constexpr mode_t folder_mode = 0700;
constexpr mode_t file_mode = 0600;

// The platform's own values have a table to themselves. Among them are access lists of several megabytes, which must not lie
// in the way of a search for an item: this table has its values beside its index of the keys, so that a search does not read
// them, while the small values of the items are in the index.
#define ITEM_TABLE \
    "CREATE TABLE item (path TEXT PRIMARY KEY NOT NULL, kind INTEGER NOT NULL, value BLOB NOT NULL) WITHOUT ROWID;"
#define PRIVATE_TABLE \
    "CREATE TABLE private (path TEXT PRIMARY KEY NOT NULL, kind INTEGER NOT NULL, value BLOB NOT NULL);"

// Commits are appended at the end of the history and removed from its beginning.
#define HISTORY_TABLE \
    "CREATE TABLE history (path TEXT PRIMARY KEY NOT NULL, kind INTEGER NOT NULL, value BLOB NOT NULL) WITHOUT ROWID;"

enum statement_index {
    statement_begin,
    statement_commit,
    statement_rollback,
    statement_get,
    statement_next,
    statement_next_inclusive,
    statement_previous,
    statement_put,
    statement_erase,
    statement_private,  ///< the preceding six statements in the same order, for the platform's own values
    statement_history = statement_private + (statement_private - statement_get),  ///< the same for the history
    statement_count = statement_history + (statement_private - statement_get)
};

#define STATEMENTS_ON(table)                                                                  \
    "SELECT kind, value FROM " table " WHERE path = ?1",                                      \
        "SELECT kind, value, path FROM " table " WHERE path > ?1 ORDER BY path LIMIT 1",      \
        "SELECT kind, value, path FROM " table " WHERE path >= ?1 ORDER BY path LIMIT 1",     \
        "SELECT kind, value, path FROM " table " WHERE path < ?1 ORDER BY path DESC LIMIT 1", \
        "REPLACE INTO " table " (path, kind, value) VALUES (?1, ?2, ?3)", "DELETE FROM " table " WHERE path = ?1"

constexpr const char* statement_texts[statement_count] = {
    "BEGIN IMMEDIATE", "COMMIT", "ROLLBACK", STATEMENTS_ON("item"), STATEMENTS_ON("private"), STATEMENTS_ON("history"),
};

/// Returns the statement for the table that contains `key`. Keys of items begin with a slash and keys of the history with
/// their prefix; all other keys are the platform's own.
statement_index statement_for(std::string_view key, statement_index index) {
    if (key.empty() || key.front() == '/') {
        return index;
    }
    const statement_index table = key.starts_with(datastore_history_prefix) ? statement_history : statement_private;
    return static_cast<statement_index>(table + (index - statement_get));
}

/// What a path led to.
struct file_identity {
    uint32_t device_major = 0;
    uint32_t device_minor = 0;
    uint64_t inode = 0;

    bool operator==(const file_identity&) const = default;
};

/// Does not request timestamps, unlike stat(): once they have been read, the kernel records the time of the next write
/// more precisely, and that write to the log takes half as long again.
file_identity identify(const std::string& path) {
    struct statx status = {};
    if (statx(AT_FDCWD, path.c_str(), 0, STATX_INO, &status) != 0) {
        return {};
    }
    return {status.stx_dev_major, status.stx_dev_minor, status.stx_ino};
}

struct sqlite_store {
    sqlite3* database = nullptr;
    sqlite3_stmt* statements[statement_count] = {};
    // What was opened: the database and its write-ahead log.
    std::string path;
    file_identity file;
    file_identity log;
    bool lost = false;  ///< they were no longer there at the last write

    sqlite_store() = default;
    sqlite_store(const sqlite_store&) = delete;
    sqlite_store& operator=(const sqlite_store&) = delete;
    ~sqlite_store() {
        for (sqlite3_stmt* statement : statements) {
            sqlite3_finalize(statement);
        }
        sqlite3_close(database);
    }
};

sqlite_store& store_of(void* store) {
    return *static_cast<sqlite_store*>(store);
}

struct result_row {
    int result;
    platform_status status;
};

constexpr result_row results[] = {
    {SQLITE_OK, PLATFORM_OK},  {SQLITE_ROW, PLATFORM_OK}, {SQLITE_DONE, PLATFORM_OK}, {SQLITE_BUSY, EBUSY},
    {SQLITE_LOCKED, EBUSY},    {SQLITE_FULL, ENOSPC},     {SQLITE_NOMEM, ENOMEM},     {SQLITE_READONLY, EROFS},
    {SQLITE_CORRUPT, EUCLEAN}, {SQLITE_NOTADB, EUCLEAN},  {SQLITE_PERM, EACCES},      {SQLITE_TOOBIG, E2BIG},
};

platform_status status_of(sqlite3* database, int result) {
    for (const result_row& row : results) {
        if (row.result == (result & 0xff)) {
            return row.status;
        }
    }
    const int system_error = database != nullptr ? sqlite3_system_errno(database) : 0;
    return static_cast<platform_status>(system_error != 0 ? system_error : EIO);
}

/// Whether the files are still at their paths. What would be written to others is gone when the agent ends.
platform_status check_in_place(sqlite_store& store) {
    store.lost = identify(store.path) != store.file ||
                 (store.log != file_identity() && identify(store.path + "-wal") != store.log);
    return store.lost ? platform_status{ESTALE} : platform_status{PLATFORM_OK};
}

std::string reason_of(sqlite3* database) {
    const int system_error = sqlite3_system_errno(database);
    const int result = sqlite3_errcode(database) & 0xff;
    if (system_error != 0 && (result == SQLITE_IOERR || result == SQLITE_CANTOPEN)) {
        return text_format("%s (%s)", sqlite3_errmsg(database), strerror(system_error));
    }
    return sqlite3_errmsg(database);
}

platform_status execute(sqlite3* database, const char* statements, std::string& reason) {
    const int result = sqlite3_exec(database, statements, nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) {
        reason = reason_of(database);
    }
    return status_of(database, result);
}

/// Runs a statement that returns one value.
platform_status query(sqlite3* database, const char* statement, std::string& answer, std::string& reason) {
    sqlite3_stmt* prepared = nullptr;
    int result = sqlite3_prepare_v2(database, statement, -1, &prepared, nullptr);
    if (result == SQLITE_OK) {
        result = sqlite3_step(prepared);
    }
    if (result == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(prepared, 0);
        answer = text == nullptr ? "" : reinterpret_cast<const char*>(text);
    } else if (result != SQLITE_DONE) {
        reason = reason_of(database);
    }
    const platform_status status = status_of(database, result);
    sqlite3_finalize(prepared);
    return status;
}

/// Queries one value and refuses any result but the expected one.
platform_status require(sqlite3* database, const char* statement, const std::string& expected, const char* complaint,
                        std::string& reason) {
    std::string answer;
    if (const platform_status status = query(database, statement, answer, reason); status != PLATFORM_OK) {
        return status;
    }
    if (answer != expected) {
        reason = text_format("%s (found \"%s\", expected \"%s\")", complaint, text_escape_quoted(answer, 80).c_str(),
                             expected.c_str());
        return EUCLEAN;
    }
    return PLATFORM_OK;
}

platform_status system_failure(const char* format, const std::string& path, std::string& reason) {
    const int error = errno;
    reason = text_format(format, path.c_str(), strerror(error));
    return static_cast<platform_status>(error);
}

platform_status sync_folder(const std::string& folder, std::string& reason) {
    const platform_status status = file_sync_folder(folder);
    if (status != PLATFORM_OK) {
        reason = text_format("cannot write the directory %s: %s", folder.c_str(), platform_status_text(status));
    }
    return status;
}

platform_status open_database(const std::string& path, std::unique_ptr<sqlite_store>& store, std::string& reason) {
    store = std::make_unique<sqlite_store>();
    // Without SQLITE_OPEN_CREATE: only an existing file is ever opened.
    const int result =
        sqlite3_open_v2(path.c_str(), &store->database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (result != SQLITE_OK) {
        reason = store->database != nullptr ? reason_of(store->database) : "out of memory";
        return status_of(store->database, result);
    }
    sqlite3_extended_result_codes(store->database, 1);
    return PLATFORM_OK;
}

/// Fills a new database under a temporary name.
platform_status fill_new(const std::string& path, std::string& reason) {
    std::unique_ptr<sqlite_store> store;
    if (const platform_status status = open_database(path, store, reason); status != PLATFORM_OK) {
        return status;
    }
    const std::string statements =
        text_format("PRAGMA application_id = %d; PRAGMA user_version = %d;" ITEM_TABLE PRIVATE_TABLE HISTORY_TABLE,
                    application_id, schema_version);
    return execute(store->database, statements.c_str(), reason);
}

/// Creates an empty database. The database is renamed only when it is complete, so an incomplete file under its final
/// name is always damaged and never left over from an interrupted first start.
platform_status create_database(const std::string& path, std::string& reason) {
    const std::string new_path = path + ".new";
    unlink(new_path.c_str());
    unlink((new_path + "-journal").c_str());
    const int fd = open(new_path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, file_mode);
    if (fd < 0) {
        return system_failure("cannot create %s: %s", new_path, reason);
    }
    close(fd);
    platform_status status = fill_new(new_path, reason);
    if (status == PLATFORM_OK && rename(new_path.c_str(), path.c_str()) != 0) {
        status = system_failure("cannot rename %s: %s", new_path, reason);
    }
    if (status != PLATFORM_OK) {
        unlink(new_path.c_str());
        return status;
    }
    return sync_folder(file_folder(path), reason);
}

/// Ensures that the file exists and that SQLite would not silently take it for a new database.
platform_status prepare_file(const std::string& path, std::string& reason) {
    if (mkdir(file_folder(path).c_str(), folder_mode) != 0 && errno != EEXIST) {
        return system_failure("cannot create the directory %s: %s", file_folder(path), reason);
    }
    struct stat file;
    if (stat(path.c_str(), &file) == 0) {
        if (!S_ISREG(file.st_mode) || file.st_size == 0) {
            reason = S_ISREG(file.st_mode) ? "the file is empty" : "it is not a regular file";
            return EUCLEAN;
        }
        return PLATFORM_OK;
    }
    if (errno != ENOENT) {
        return system_failure("cannot examine %s: %s", path, reason);
    }
    if (stat((path + "-wal").c_str(), &file) == 0 && file.st_size > 0) {
        reason = "the file is missing, but its write-ahead log, of the same name with -wal appended, is not";
        return EUCLEAN;
    }
    return create_database(path, reason);
}

// The statements for a version convert its database to the next version.

/// Version 1 stored the platform's own values in the table of the items.
#define FROM_VERSION_1                                                                        \
    PRIVATE_TABLE                                                                             \
    "INSERT INTO private SELECT path, kind, value FROM item WHERE substr(path, 1, 1) != '/';" \
    "DELETE FROM item WHERE substr(path, 1, 1) != '/';"

/// Version 2 had no history.
#define FROM_VERSION_2 HISTORY_TABLE

/// Version 3 had only one RSA key for each user. The records of such keys are still read, but a program of that version does
/// not read the present ones, and must not open the database.
#define FROM_VERSION_3 ""

struct migration_row {
    const char* version;
    const char* statements;
};

constexpr migration_row migrations[] = {
    {"1", FROM_VERSION_1 FROM_VERSION_2 FROM_VERSION_3},
    {"2", FROM_VERSION_2 FROM_VERSION_3},
    {"3", FROM_VERSION_3},
};

/// Migrates the database of an earlier version to the present version in one transaction.
platform_status migrate(sqlite3* database, const char* version_statements, std::string& reason) {
    const std::string statements =
        text_format("BEGIN IMMEDIATE;%sPRAGMA user_version = %d;COMMIT;", version_statements, schema_version);
    const platform_status status = execute(database, statements.c_str(), reason);
    if (status != PLATFORM_OK && sqlite3_get_autocommit(database) == 0) {
        sqlite3_exec(database, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    return status;
}

platform_status bring_up_to_date(sqlite3* database, std::string& reason) {
    std::string version;
    if (const platform_status status = query(database, "PRAGMA user_version", version, reason); status != PLATFORM_OK) {
        return status;
    }
    for (const migration_row& row : migrations) {
        if (version == row.version) {
            return migrate(database, row.statements, reason);
        }
    }
    const long number = strtol(version.c_str(), nullptr, 10);
    if (number > schema_version) {
        reason = text_format(
            "it was written by a newer version of this program (format %ld, expected %d); install that version again, or "
            "move the database away and load what `ssh_cfg_ctl dump` saved before the upgrade",
            number, schema_version);
        return EUCLEAN;
    }
    return require(database, "PRAGMA user_version", std::to_string(schema_version),
                   "the database was written by another version of this program", reason);
}

/// Configures the connection and checks that the database is intact and of this version.
platform_status set_up(sqlite3* database, std::string& reason) {
    if (sqlite3_db_readonly(database, "main") != 0) {
        reason = "the file is not writable";
        return EACCES;
    }
    // Only one process uses the database, so the index of the log can stay in memory and the lock is taken only once.
    platform_status status = execute(database,
                                     "PRAGMA locking_mode = EXCLUSIVE;"
                                     "PRAGMA cache_size = -256;"
                                     "PRAGMA mmap_size = 0;"
                                     "PRAGMA temp_store = MEMORY;"
                                     "PRAGMA trusted_schema = OFF;",
                                     reason);
    const std::string id = std::to_string(application_id);
    struct {
        const char* statement;
        const std::string& expected;
        const char* complaint;
    } const demands[] = {
        {"PRAGMA application_id", id, "the database belongs to another program"},
        {"PRAGMA journal_mode = WAL", "wal", "the database cannot be switched to write-ahead logging"},
        {"PRAGMA quick_check(1)", "ok", "the database is damaged"},
    };
    for (const auto& demand : demands) {
        if (status == PLATFORM_OK) {
            status = require(database, demand.statement, demand.expected, demand.complaint, reason);
        }
    }
    if (status == PLATFORM_OK) {
        status = execute(database, "PRAGMA synchronous = FULL", reason);
    }
    return status == PLATFORM_OK ? bring_up_to_date(database, reason) : status;
}

platform_status prepare_statements(sqlite_store& store, std::string& reason) {
    for (int i = 0; i < statement_count; i++) {
        const int result = sqlite3_prepare_v3(store.database, statement_texts[i], -1, SQLITE_PREPARE_PERSISTENT,
                                              &store.statements[i], nullptr);
        if (result != SQLITE_OK) {
            reason = reason_of(store.database);
            return status_of(store.database, result);
        }
    }
    return PLATFORM_OK;
}

platform_status sqlite_open(const char* path, void** store, std::string& reason) {
    std::unique_ptr<sqlite_store> opened;
    platform_status status = prepare_file(path, reason);
    if (status == PLATFORM_OK) {
        status = open_database(path, opened, reason);
    }
    if (status == PLATFORM_OK) {
        status = set_up(opened->database, reason);
    }
    if (status == PLATFORM_OK) {
        status = prepare_statements(*opened, reason);
    }
    if (status == EBUSY) {
        reason = "another process is using the database; is a second agent running?";
    }
    if (status == PLATFORM_OK) {
        opened->path = path;
        opened->file = identify(opened->path);
        opened->log = identify(opened->path + "-wal");
        *store = opened.release();
    }
    return status;
}

void sqlite_close(void* store) {
    delete static_cast<sqlite_store*>(store);
}

/// Runs a statement that returns nothing.
platform_status run(void* store, statement_index index) {
    sqlite3_stmt* statement = store_of(store).statements[index];
    const int result = sqlite3_step(statement);
    const platform_status status = status_of(store_of(store).database, result);
    sqlite3_reset(statement);
    return status;
}

/// Runs a statement that writes to the database. If that ends a transaction, first checks that the database's files are
/// still in place.
platform_status run_and_store(void* store, statement_index index) {
    const bool within = index != statement_commit && sqlite3_get_autocommit(store_of(store).database) == 0;
    const platform_status status = within ? platform_status{PLATFORM_OK} : check_in_place(store_of(store));
    return status == PLATFORM_OK ? run(store, index) : status;
}

platform_status sqlite_begin(void* store) {
    return run(store, statement_begin);
}

platform_status sqlite_commit(void* store) {
    return run_and_store(store, statement_commit);
}

void sqlite_rollback(void* store) {
    // After some failures SQLite has already rolled the transaction back by itself.
    if (sqlite3_get_autocommit(store_of(store).database) == 0) {
        run(store, statement_rollback);
    }
}

int bind_key(sqlite3_stmt* statement, std::string_view key) {
    return sqlite3_bind_text(statement, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
}

std::string column_bytes(sqlite3_stmt* statement, int column) {
    const void* bytes = sqlite3_column_blob(statement, column);
    const int size = sqlite3_column_bytes(statement, column);
    return bytes == nullptr ? std::string() : std::string(static_cast<const char*>(bytes), static_cast<size_t>(size));
}

/// Runs a statement that returns at most one row: kind, value and, if `key` is wanted, path.
platform_status fetch(void* store, statement_index index, std::string_view bound, std::string* key,
                      datastore_stored& value) {
    sqlite3_stmt* statement = store_of(store).statements[index];
    int result = bind_key(statement, bound);
    if (result == SQLITE_OK) {
        result = sqlite3_step(statement);
    }
    platform_status status = status_of(store_of(store).database, result);
    if (result == SQLITE_DONE) {
        status = DATASTORE_NO_SUCH_ITEM;
    }
    if (result == SQLITE_ROW) {
        datastore_stored found = {static_cast<uint32_t>(sqlite3_column_int(statement, 0)), column_bytes(statement, 1)};
        if (key != nullptr) {
            *key = column_bytes(statement, 2);
        }
        value = std::move(found);
    }
    sqlite3_reset(statement);
    return status;
}

platform_status sqlite_get(void* store, std::string_view key, datastore_stored& value) {
    return fetch(store, statement_for(key, statement_get), key, nullptr, value);
}

platform_status sqlite_next(void* store, std::string_view from, bool inclusive, std::string& key,
                            datastore_stored& value) {
    return fetch(store, statement_for(from, inclusive ? statement_next_inclusive : statement_next), from, &key, value);
}

platform_status sqlite_previous(void* store, std::string_view before, std::string& key, datastore_stored& value) {
    return fetch(store, statement_for(before, statement_previous), before, &key, value);
}

platform_status sqlite_put(void* store, std::string_view key, const datastore_stored& value) {
    const statement_index index = statement_for(key, statement_put);
    sqlite3_stmt* statement = store_of(store).statements[index];
    bind_key(statement, key);
    sqlite3_bind_int(statement, 2, static_cast<int>(value.kind));
    sqlite3_bind_blob(statement, 3, value.bytes.data(), static_cast<int>(value.bytes.size()), SQLITE_STATIC);
    return run_and_store(store, index);
}

platform_status sqlite_erase(void* store, std::string_view key) {
    const statement_index index = statement_for(key, statement_erase);
    bind_key(store_of(store).statements[index], key);
    return run_and_store(store, index);
}

std::string sqlite_reason(void* store) {
    const sqlite_store& opened = store_of(store);
    return opened.lost
               ? "its file has been removed or replaced. Keep what `ssh_cfg_ctl dump` still shows, restart the agent, "
                 "and load it"
               : reason_of(opened.database);
}

}  // namespace

const datastore_engine datastore_engine_sqlite = {
    sqlite_open, sqlite_close,    sqlite_begin, sqlite_commit, sqlite_rollback, sqlite_get,
    sqlite_next, sqlite_previous, sqlite_put,   sqlite_erase,  sqlite_reason,
};
