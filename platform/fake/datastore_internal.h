/// The state of the fake datastore, shared by its files.
#ifndef FAKE_DATASTORE_INTERNAL_H
#define FAKE_DATASTORE_INTERNAL_H

#include <map>
#include <memory>

#include "fake_internal.h"

struct datastore_binding {
    std::string path;
};

struct datastore_list {
    std::vector<std::pair<std::string, std::string>> entries;  ///< names and records; the record may be empty
};

struct datastore_provider {
    std::string path;
    datastore_provider_callback callback;
    void* context;
};

struct datastore_read_request {
    fake_platform::answer answer;
};

namespace fake_platform::internal {

struct verification {
    datastore_binding* binding;
    std::string pattern;
    uint32_t event_mask;
    datastore_verify_callback verify;
    datastore_apply_callback apply;
    void* context;
};

struct notification {
    datastore_binding* binding;
    std::string item;
    uint32_t event_mask;
    datastore_notification_callback callback;
    void* context;
};

struct datastore_state {
    std::map<std::string, value, std::less<>> items;  ///< in byte order of the paths
    std::map<std::string, std::vector<std::pair<std::string, std::string>>, std::less<>> lists;
    std::vector<std::unique_ptr<datastore_binding>> bindings;
    std::vector<verification> verifications;
    std::vector<notification> notifications;
    std::vector<std::unique_ptr<datastore_provider>> providers;
    std::vector<std::unique_ptr<datastore_list>> open_lists;
    const std::map<std::string, std::optional<value>>* proposed = nullptr;  ///< by the commit under verification
    uint32_t handlers_running = 0;  ///< verifiers and appliers that have not returned yet
};

extern datastore_state datastore;

/// Whether a pattern matches an item (relative to a binding): the empty pattern matches all items, one that ends in '/'
/// all below it, and "*" any one component.
bool item_matches(std::string_view pattern, std::string_view item);

/// The item's path below the binding; nothing if it is not below the binding, or the binding was released.
std::optional<std::string> item_below(const datastore_binding* binding, std::string_view path);

/// Counts a handler as running during its lifetime.
class handler_scope {
  public:
    handler_scope() { datastore.handlers_running++; }
    ~handler_scope() { datastore.handlers_running--; }
    handler_scope(const handler_scope&) = delete;
    handler_scope& operator=(const handler_scope&) = delete;
};

}  // namespace fake_platform::internal

#endif
