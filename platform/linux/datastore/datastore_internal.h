/// The Linux datastore's interface for the rest of the Linux platform, mainly the control socket: commits, reads of the
/// configuration, operational reads, and persistent storage for the platform's services.
///
/// All functions must be called on the event loop's thread. None throws.
#ifndef LINUX_DATASTORE_DATASTORE_INTERNAL_H
#define LINUX_DATASTORE_DATASTORE_INTERNAL_H

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "linux/datastore/authority.h"
#include "linux/datastore/history.h"
#include "linux/datastore/rehearsal.h"
#include "linux/datastore/schema.h"
#include "linux/enforcement/enforcement_internal.h"
#include "platform/datastore.h"

/// One requested change. Without a value the item is deleted; a path that ends in '/' then stands for everything below
/// it, except for items that the same commit names explicitly. "/" stands for all items, but not for values of services.
struct datastore_change_request {
    std::string path;
    std::optional<datastore_value> value;
    bool absent_ok = false;  ///< a deletion of an absent item is not an error; the item counts as unchanged
    std::optional<std::string> service_value = {};  ///< the stored form of a service's value (service_values.h)

    bool deletes() const { return !value.has_value() && !service_value.has_value(); }
};

/// What a commit does to one item, or would do if it is only checked.
enum class datastore_outcome : uint8_t { unchanged, created, changed, deleted };

struct datastore_item_outcome {
    std::string path;
    datastore_outcome outcome;
    std::optional<datastore_stored> previous;
    std::optional<datastore_stored> value;  ///< nothing if the item is deleted or absent
};

/// On whose behalf and under which conditions a commit is made.
struct datastore_commit_order {
    datastore_authority authority = datastore_authority::administrator;
    datastore_author author;
    uint64_t confirm_seconds =
        0;                       ///< the time within which the commit must be confirmed; 0 if it need not be confirmed
    uint64_t undone_commit = 0;  ///< the number of the unconfirmed commit that this one undoes; 0 if it undoes none
    /// Called after the rehearsal, before anything is stored; may be empty. The rehearsal, which may be null, contains the
    /// changed lines of the files. Returns why the commit is not to be carried out, or an empty string. Called for a check,
    /// too, which is not refused.
    std::function<std::string(const std::vector<datastore_item_outcome>& items, const rehearsal_report* rehearsal)>
        judge = {};
};

/// Who refused a commit.
enum class datastore_refused_by : uint8_t {
    none,          ///< it succeeded (or would succeed)
    confirmation,  ///< an earlier commit must be confirmed or undone first
    authority,     ///< an item that only root may change
    schema,        ///< unknown path or invalid value
    judge,         ///< the judge of the order
    absent,        ///< an item to be deleted does not exist; the status is DATASTORE_NO_SUCH_ITEM
    verifier,   ///< a verifier of the agent or a service, or the agent does not support the item (DATASTORE_NO_HANDLER)
    unchecked,  ///< a service could not check its value
    rehearsal,  ///< its rehearsal: sshd would not start with it
    unrehearsed,  ///< it was only to be checked, and could not be rehearsed
    store,        ///< the database: full disk, input/output error
    busy          ///< requested from within a handler (EBUSY)
};

struct datastore_commit_result {
    platform_status status = PLATFORM_OK;
    datastore_refused_by refused_by = datastore_refused_by::none;
    std::string path;                           ///< the refused path, empty when the whole commit is refused
    std::string message;                        ///< complete message for the operator; empty on success
    uint64_t number = 0;                        ///< the commit's number in the history; 0 if nothing was changed
    std::vector<datastore_item_outcome> items;  ///< in byte order of the paths
    /// Reports during the commit. If an item already had its new value, everything that is not in force.
    std::vector<enforcement_entry> not_in_force;
    /// What the commit would do to this machine; nothing if it was not rehearsed.
    std::optional<rehearsal_report> rehearsal;
};

/// One commit, all or nothing: schema, verifiers, rehearsal, store, and then the appliers in byte order of the paths and
/// the notifications. Values of services are put in force before or after the items, as their kind says. When it returns without a refusal, the changes are on stable storage. A value equal to the stored
/// one is not a change and calls nothing. With `check_only`, only the schema, the verifiers and the rehearsal are
/// consulted. A commit that cannot be rehearsed is carried out nevertheless. One that changes only values of services is
/// rehearsed only with `check_only`, because it writes no file that sshd reads.
/// Items that only root may change are refused unless the commit is made on root's behalf; whoever undoes a commit does so on
/// behalf of the one who made it. While a commit awaits its confirmation, others are refused except the one that undoes it.
datastore_commit_result datastore_commit(const std::vector<datastore_change_request>& requests, bool check_only,
                                         const datastore_commit_order& order = {});

/// The stored value of an item. DATASTORE_NO_SUCH_ITEM if there is none.
platform_status datastore_get_value(std::string_view path, datastore_value& value);

/// Returns an item or a service's value in its stored form, or nothing if it is not stored or cannot be read.
std::optional<datastore_stored> datastore_present_value(std::string_view path);

/// The names directly below `path` (which may end in '/'), in byte order, without duplicates; empty if there are none.
/// A list provided by a service of the platform is in the service's order.
platform_status datastore_list_children(std::string_view path, std::vector<std::string>& names);

/// Calls `visit` for every stored item whose path begins with `prefix`, in byte order, until it returns false. Skips
/// items that are unknown to this version's schema.
platform_status datastore_visit(
    std::string_view prefix, const std::function<bool(const std::string& path, const datastore_value& value)>& visit);

/// An encoded record and its descriptor.
struct datastore_record {
    const record_descriptor* descriptor = nullptr;
    std::string bytes;
};

/// The answer of a provider.
struct datastore_answer {
    platform_status status = PLATFORM_OK;  ///< DATASTORE_NO_SUCH_TREE when no provider serves the path
    bool is_list = false;
    std::vector<datastore_record> records;  ///< at most one unless it is a list
};

/// An operational read: calls the provider that serves `path`. DATASTORE_NO_DATA and DATASTORE_NOTHING_TO_ENCODE are
/// answers without records.
datastore_answer datastore_read(std::string_view path);

/// Has `fill` build an answer without a request, as telemetry does for an event.
datastore_answer datastore_fill(datastore_provider_callback fill, const char* item, void* context);

/// Private data of the platform's services, separate from the configuration (VRF numbers, for instance). A key has the
/// form "SERVICE/NAME", never begins with '/', and is not visible in the configuration. A write is durable when it
/// returns, and is allowed from within a handler.
platform_status datastore_private_get(std::string_view key, std::string& bytes);
platform_status datastore_private_put(std::string_view key, std::string_view bytes);
platform_status datastore_private_delete(std::string_view key);
/// The first key after `after` that begins with `prefix`, and its bytes; DATASTORE_NO_SUCH_ITEM at the end.
platform_status datastore_private_next(std::string_view prefix, std::string_view after, std::string& key,
                                       std::string& bytes);

struct datastore_engine;

/// For tests: selects another engine or database before anything is opened. Null keeps the default
/// (SQLite, /var/lib/ssh_cfg_agent/datastore.db).
void datastore_configure(const datastore_engine* engine, const char* database_path);

/// Opens the database; further calls do nothing. A failure is logged and written to standard error.
platform_status datastore_open();

/// Closes the database; datastore_open opens it again. Only for readers before anything is bound.
void datastore_release();

/// Closes the database and discards the settings of datastore_configure. The caller must still release its bindings.
void datastore_close();

#endif
