/// Internal state shared by the files of the Linux datastore; nothing else includes this.
#ifndef LINUX_DATASTORE_STATE_H
#define LINUX_DATASTORE_STATE_H

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "linux/datastore/engine.h"
#include "linux/datastore/rehearsal.h"
#include "linux/datastore/schema.h"
#include "platform/datastore.h"

struct datastore_binding {
    std::string path;  ///< ends in '/'
};

/// A callback for changes below a path: a verification if `verify` or `apply` is set, otherwise a notification.
struct datastore_registration {
    const datastore_binding* owner;  ///< null once the owner has been unbound
    std::string path;                ///< the binding's
    std::string pattern;
    uint32_t event_mask;
    datastore_verify_callback verify;
    datastore_apply_callback apply;
    datastore_notification_callback notify;
    void* context;
};

struct datastore_provider {
    std::string path;  ///< without a trailing '/'
    datastore_provider_callback callback;
    void* context;
};

/// How many commits are kept unless another number is set.
inline constexpr uint32_t datastore_commits_kept_default = 100;

struct datastore_state {
    const datastore_engine* engine;
    std::string database_path;
    void* store;  ///< null while the database is closed
    std::vector<std::unique_ptr<datastore_registration>> registrations;
    std::vector<std::unique_ptr<datastore_provider>> providers;
    uint32_t handlers_running;                                       ///< nesting depth of calls of the agent's handlers
    rehearsal_report (*rehearse)(const rehearsal_request& request);  ///< null if commits are not rehearsed
    uint64_t last_commit = 0;  ///< the number of the latest commit; 0 if there has been none
    uint32_t commits_kept = datastore_commits_kept_default;  ///< how many commits the history keeps
    void (*confirmation_awaited)() = nullptr;                ///< called after a commit that must be confirmed
};

datastore_state& the_datastore();

/// Surrounds every call of the agent's handlers: a commit from within is refused, and registrations released there
/// disappear only afterwards.
class datastore_handler_scope {
  public:
    datastore_handler_scope();
    ~datastore_handler_scope();
    datastore_handler_scope(const datastore_handler_scope&) = delete;
    datastore_handler_scope& operator=(const datastore_handler_scope&) = delete;
};

/// A stored item of the configuration; DATASTORE_UNAVAILABLE while the database is closed.
platform_status datastore_stored_get(std::string_view path, datastore_stored& value);

/// The same, but during the verification of a commit, an item that it changes is returned as the commit would store it.
platform_status datastore_proposed_get(std::string_view path, datastore_stored& value);

/// The first stored item whose path begins with `prefix` and sorts after `after` (the first one with the prefix if
/// `after` is empty). DATASTORE_NO_SUCH_ITEM at the end.
platform_status datastore_stored_next(std::string_view prefix, std::string_view after, std::string& path,
                                      datastore_stored& value);

/// The names directly below `prefix` (which ends in '/'), each with its stored bytes, which are empty if the name only
/// leads to other items.
platform_status datastore_stored_children(const std::string& prefix, std::map<std::string, std::string>& children);

/// The same, but while the verifiers of a commit run, as the commit would leave it.
platform_status datastore_proposed_children(const std::string& prefix, std::map<std::string, std::string>& children);

/// Adds the name of the item at `path` directly below `prefix`, with the value's bytes if the item itself has that name.
void datastore_add_child(const std::string& prefix, const std::string& path, const datastore_stored& value,
                         std::map<std::string, std::string>& children);

/// Whether a registration's pattern matches an item's path, relative to a binding: "" matches all, a pattern that ends
/// in '/' everything below it, and a component "*" any one component.
bool datastore_pattern_matches(std::string_view pattern, std::string_view item);

/// The item's path relative to the registration if one of `events` concerns that; otherwise null data.
std::string_view datastore_concerned_item(const datastore_registration& registration, std::string_view path,
                                          uint32_t events);

/// Drops the registrations of released bindings. For datastore_handler_scope and datastore_unbind.
void datastore_drop_orphans();

#endif
