/// What the Linux datastore offers to the rest of the Linux platform, above all to the control socket: commits, reads of
/// the configuration, operational reads, and a place where the platform's services keep what must survive a restart.
///
/// All calls belong on the event loop's thread. None throws.
#ifndef LINUX_DATASTORE_DATASTORE_INTERNAL_H
#define LINUX_DATASTORE_DATASTORE_INTERNAL_H

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "linux/datastore/schema.h"
#include "platform/datastore.h"

/// One wished change. Without a value the item is deleted; a path that ends in '/' then stands for everything below it,
/// except what the same commit names itself.
struct datastore_change_request {
    std::string path;
    std::optional<datastore_value> value;
};

/// What a commit does (or, when it is only checked, would do) with one item.
enum class datastore_outcome : uint8_t { unchanged, created, changed, deleted };

struct datastore_item_outcome {
    std::string path;
    datastore_outcome outcome;
};

/// Who refused a commit.
enum class datastore_refused_by : uint8_t {
    none,      ///< it was carried out (or would be)
    schema,    ///< unknown path, or a value that does not fit
    absent,    ///< an item that was to be deleted does not exist; the status is DATASTORE_NO_SUCH_ITEM
    verifier,  ///< a verifier of the agent, or the agent does not serve the item (DATASTORE_NO_HANDLER)
    store,     ///< the database: full disk, input/output error
    busy       ///< asked from within a handler (EBUSY)
};

struct datastore_warning {
    std::string path;
    std::string message;
};

struct datastore_commit_result {
    platform_status status = PLATFORM_OK;
    datastore_refused_by refused_by = datastore_refused_by::none;
    std::string path;     ///< the path that was refused, empty when the refusal is of the whole commit
    std::string message;  ///< for the operator, whole; empty when the commit was carried out
    std::vector<datastore_item_outcome> items;  ///< in byte order of the paths
    std::vector<datastore_warning> warnings;    ///< stored, but an applier could not carry it out
};

/// One commit, all or nothing: schema, verifiers, store, and then the appliers in byte order of the paths and the
/// notifications. When it returns without a refusal the changes are on stable storage. A value equal to the stored one
/// is no change and calls nothing. With `check_only` the schema and the verifiers are asked and nothing else happens.
datastore_commit_result datastore_commit(const std::vector<datastore_change_request>& requests, bool check_only);

/// The stored value of an item. DATASTORE_NO_SUCH_ITEM when there is none.
platform_status datastore_get_value(std::string_view path, datastore_value& value);

/// The names directly below `path` (which may end in '/'), in byte order, each once; empty when there are none. A list that
/// a service of the platform serves comes in the service's order.
platform_status datastore_list_children(std::string_view path, std::vector<std::string>& names);

/// Calls `visit` for every stored item whose path begins with `prefix`, in byte order, until it returns false. Items that
/// this version's schema does not know are left out.
platform_status datastore_visit(
    std::string_view prefix, const std::function<bool(const std::string& path, const datastore_value& value)>& visit);

/// An encoded record and what describes it.
struct datastore_record {
    const record_descriptor* descriptor = nullptr;
    std::string bytes;
};

/// The answer of a provider.
struct datastore_answer {
    platform_status status = PLATFORM_OK;  ///< DATASTORE_NO_SUCH_TREE when no provider serves the path
    bool is_list = false;
    std::vector<datastore_record> records;  ///< at most one when it is no list
};

/// An operational read: asks the provider that serves `path`. DATASTORE_NO_DATA and DATASTORE_NOTHING_TO_ENCODE are
/// answers without records.
datastore_answer datastore_read(std::string_view path);

/// Lets `fill` make one answer that nobody has asked for, as telemetry does for an event.
datastore_answer datastore_fill(datastore_provider_callback fill, const char* item, void* context);

/// What the platform's services keep for themselves beside the configuration (numbers of VRFs, for instance). A key is
/// "SERVICE/NAME", never begins with '/', and is not seen in the configuration. Writing is durable when it returns, and
/// is allowed from within a handler.
platform_status datastore_private_get(std::string_view key, std::string& bytes);
platform_status datastore_private_put(std::string_view key, std::string_view bytes);
platform_status datastore_private_delete(std::string_view key);
/// The first key after `after` that begins with `prefix`, and its bytes; DATASTORE_NO_SUCH_ITEM at the end.
platform_status datastore_private_next(std::string_view prefix, std::string_view after, std::string& key,
                                       std::string& bytes);

struct datastore_engine;

/// For tests: another engine or database, before anything is opened. Null leaves the default
/// (SQLite, /var/lib/ssh_cfg_agent/datastore.db).
void datastore_configure(const datastore_engine* engine, const char* database_path);

/// Opens the database, once; further calls do nothing. A failure has been logged and written to standard error.
platform_status datastore_open();

/// Closes the database and forgets what datastore_configure has set. Bindings stay the caller's to give back.
void datastore_close();

#endif
