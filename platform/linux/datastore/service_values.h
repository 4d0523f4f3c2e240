/// Values of the platform's services that belong to the configuration: access lists and imported keys.
///
/// Each value has a path of its own, such as /keys/USER. A commit changes such values together with the items, in the same
/// transaction, and keeps them in the same entry of the history. They are stored under private keys. Neither the schema nor
/// the agent's verifiers know them: the service that a kind of values belongs to decides what is accepted.
///
/// All functions must be called on the event loop's thread, and may throw std::bad_alloc.
#ifndef LINUX_DATASTORE_SERVICE_VALUES_H
#define LINUX_DATASTORE_SERVICE_VALUES_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "linux/datastore/schema.h"
#include "platform/status.h"

/// Why a value must not be stored.
struct datastore_objection {
    platform_status status = PLATFORM_OK;  ///< PLATFORM_OK if the value may be stored
    std::vector<std::string> reasons;      ///< at least one if it must not be stored; none contains the path
    bool is_unchecked = false;             ///< the value could not be checked, so it may be valid
};

/// A kind of values. The texts must have static storage.
struct datastore_service_kind {
    std::string_view tree;    ///< the paths of the values begin with it and end with a name, for example "/keys/"
    std::string_view prefix;  ///< their private keys begin with it and end with the same name
    /// Whether values are put in force before the items of their commit, and deleted values taken out of force after them;
    /// otherwise the other way round.
    bool is_set_before_items;
    /// Returns whether a stored value belongs to the configuration. Null if all values do.
    bool (*is_included)(const std::string& bytes);
    /// Checks a value that a commit would store, while the commit is verified.
    datastore_objection (*check)(const std::string& name, const std::string& bytes);
    /// Puts a stored value in force, or takes a deleted one (`bytes` is null) out of force. Reports its own failures.
    /// `is_changed` is false if the value is as before the commit.
    void (*apply)(const std::string& name, const std::string* bytes, bool is_changed);
};

/// Lets commits change values of a kind. Replaces the kind with the same tree.
void datastore_offer_values(const datastore_service_kind& kind);
void datastore_withdraw_values(std::string_view tree);

/// Returns the kind that a path belongs to, or null if the path is not that of a value.
const datastore_service_kind* datastore_service_kind_of(std::string_view path);

/// Returns whether a path that ends in '/' leads only to values of services.
bool datastore_is_service_tree(std::string_view tree);

/// Returns the last component of a value's path.
std::string datastore_service_name(std::string_view path);

/// Returns the key under which the value or item with this path is stored.
std::string datastore_storage_key(std::string_view path);

/// Reads the value at `path`, which belongs to `kind`. Returns DATASTORE_NO_SUCH_ITEM if there is none.
platform_status datastore_service_get(const datastore_service_kind& kind, std::string_view path,
                                      datastore_stored& value);

/// Calls `visit` for every value whose path begins with `tree`, in byte order of the paths.
platform_status datastore_visit_service_values(
    std::string_view tree, const std::function<void(const std::string& path, const datastore_stored& value)>& visit);

/// Returns the components that follow `folder`, an absolute path that ends in '/', in the paths of values, in byte order: a
/// value's name as it is, any other component with a '/' after it. With `kinds_too`, also those that lead to kinds of values
/// of which there are none. Damaged and unreadable values are left out.
std::vector<std::string> datastore_service_children(std::string_view folder, bool kinds_too);

/// Returns whether the commit that is being made, if there is one, changes the value or item with this path.
bool datastore_is_being_changed(std::string_view path);

#endif
