#include <errno.h>

#include <algorithm>
#include <cstdlib>
#include <map>

#include "datastore_internal.h"

namespace fake_platform {
namespace {

using internal::datastore;
using internal::item_below;
using internal::item_matches;

/// A change of one item, different from what is stored.
struct item_change {
    std::string path;
    std::optional<value> previous;
    std::optional<value> now;
};

uint32_t event_of(const item_change& item) {
    if (!item.now) {
        return DATASTORE_EVENT_DELETE;
    }
    return item.previous ? DATASTORE_EVENT_SET : DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET;
}

const void* bytes_of(const std::optional<value>& value) {
    return value ? value->bytes.data() : nullptr;
}

size_t size_of(const std::optional<value>& value) {
    return value ? value->bytes.size() : 0;
}

datastore_change change_of(const item_change& item) {
    return {event_of(item), bytes_of(item.previous), bytes_of(item.now), size_of(item.previous), size_of(item.now)};
}

using wished_values = std::map<std::string, std::optional<value>>;

/// Removes everything below a path, except what the commit names itself.
void wish_tree_away(const std::string& tree, wished_values& wished) {
    for (auto item = datastore.items.lower_bound(tree); item != datastore.items.end(); ++item) {
        if (item->first.compare(0, tree.size(), tree) != 0) {
            break;
        }
        wished.emplace(item->first, std::nullopt);
    }
}

/// The effective changes, in byte order of the paths. The last requested change of a path wins.
std::vector<item_change> effective_changes(const std::vector<change>& changes) {
    wished_values wished;
    for (const change& change : changes) {
        if (change.path.empty() || change.path.back() != '/') {
            wished[change.path] = change.new_value;
        }
    }
    for (const change& change : changes) {
        if (!change.path.empty() && change.path.back() == '/') {
            wish_tree_away(change.path, wished);
        }
    }
    std::vector<item_change> effective;
    for (auto& [path, now] : wished) {
        std::optional<value> previous = stored(path);
        if (previous != now) {
            effective.push_back({path, std::move(previous), std::move(now)});
        }
    }
    return effective;
}

/// Calls `visit` with every verification that concerns the change, and the item's path below its binding.
template <typename visitor>
void for_each_verification(const item_change& item, visitor visit) {
    const std::vector<internal::verification> registrations = datastore.verifications;
    for (const internal::verification& registration : registrations) {
        const std::optional<std::string> below = item_below(registration.binding, item.path);
        if (below && item_matches(registration.pattern, *below) && (registration.event_mask & event_of(item)) != 0) {
            visit(registration, below->c_str());
        }
    }
}

/// Calls one verifier. Returns whether it accepts.
bool accepts(const internal::verification& registration, const char* item, const item_change& change,
             commit_result& result) {
    const datastore_change record = change_of(change);
    char* error_text = nullptr;
    uint32_t accepted = 0;
    const datastore_backend_call call = {item, &record, &error_text, &accepted};
    const platform_status status = registration.verify(&call, registration.context);
    if (status != PLATFORM_OK || accepted == 0) {
        result.status = status != PLATFORM_OK ? status : static_cast<platform_status>(EINVAL);
        result.refused_path = change.path;
        result.error_text = error_text != nullptr ? error_text : "";
    }
    free(error_text);
    return result.status == PLATFORM_OK;
}

/// Whether any notification is registered for the change.
bool is_noticed(const item_change& change) {
    return std::any_of(datastore.notifications.begin(), datastore.notifications.end(),
                       [&change](const internal::notification& registration) {
                           const std::optional<std::string> below = item_below(registration.binding, change.path);
                           return below && item_matches(registration.item, *below) &&
                                  (registration.event_mask & event_of(change)) != 0;
                       });
}

/// Calls every verifier concerned. Refuses items without a registered callback.
bool verify(const item_change& change, commit_result& result) {
    bool accepted = true;
    bool served = is_noticed(change);
    for_each_verification(change, [&](const internal::verification& registration, const char* item) {
        served = true;
        accepted = accepted && (registration.verify == nullptr || accepts(registration, item, change, result));
    });
    if (!served) {
        result.status = DATASTORE_NO_HANDLER;
        result.refused_path = change.path;
    }
    return accepted && served;
}

/// During verification, reads from the datastore return what the commit would store.
bool verify_all(const std::vector<item_change>& effective, commit_result& result) {
    wished_values proposed;
    for (const item_change& item : effective) {
        proposed[item.path] = item.now;
    }
    datastore.proposed = &proposed;
    const bool accepted =
        std::all_of(effective.begin(), effective.end(), [&](const item_change& item) { return verify(item, result); });
    datastore.proposed = nullptr;
    return accepted;
}

void apply(const item_change& change, commit_result& result) {
    const datastore_change record = change_of(change);
    for_each_verification(change, [&](const internal::verification& registration, const char* item) {
        if (registration.apply == nullptr) {
            return;
        }
        const datastore_backend_call call = {item, &record, nullptr, nullptr};
        const platform_status status = registration.apply(&call, registration.context);
        if (status != PLATFORM_OK) {
            result.failures.push_back({change.path, status});
        }
    });
}

}  // namespace

change set_number(std::string path, uint32_t number) {
    return {std::move(path), number_value(number)};
}

change set_text(std::string path, std::string_view text) {
    return {std::move(path), text_value(text)};
}

change set_tuple(std::string path, const char* format, const std::vector<field>& fields) {
    return {std::move(path), tuple_value(format, fields)};
}

change remove(std::string path) {
    return {std::move(path), std::nullopt};
}

commit_result commit(const change& change) {
    return commit(std::vector<fake_platform::change>{change});
}

namespace {

void carry_out(const std::vector<item_change>& effective, commit_result& result) {
    const internal::announced_commit announced;
    for (const item_change& item : effective) {
        apply(item, result);
    }
    for (const item_change& item : effective) {
        notify(item.path, event_of(item), item.now);
    }
}

}  // namespace

commit_result commit(const std::vector<change>& changes) {
    commit_result result;
    if (datastore.handlers_running != 0) {
        result.status = EBUSY;
        return result;
    }
    const internal::handler_scope scope;
    const size_t reports = internal::enforcement_reports();
    const std::vector<item_change> effective = effective_changes(changes);
    if (!verify_all(effective, result)) {
        return result;
    }
    for (const item_change& item : effective) {
        store({item.path, item.now});
    }
    carry_out(effective, result);
    result.not_in_force = internal::unenforced_since(reports);
    return result;
}

void notify(std::string_view path, uint32_t event, const std::optional<value>& value) {
    const std::vector<internal::notification> registrations = datastore.notifications;
    for (const internal::notification& registration : registrations) {
        const std::optional<std::string> below = item_below(registration.binding, path);
        if (below && item_matches(registration.item, *below) && (registration.event_mask & event) != 0) {
            const datastore_notification notice = {below->c_str(), event, bytes_of(value), size_of(value)};
            registration.callback(&notice, registration.context);
        }
    }
}

}  // namespace fake_platform

using namespace fake_platform;

platform_status datastore_backend_scan(datastore_binding* binding, const datastore_item_table* table,
                                       const char* pattern, uint32_t cookie, event_manager*) {
    const platform_status status =
        internal::enter("datastore_backend_scan", {binding->path + pattern, internal::hexadecimal(cookie)});
    if (status != PLATFORM_OK) {
        return status;
    }
    const internal::handler_scope scope;
    const internal::announced_commit announced;
    const auto items = datastore.items;
    for (const auto& [path, stored_value] : items) {
        const std::optional<std::string> below = item_below(binding, path);
        if (below && item_matches(pattern, *below)) {
            const item_change item = {path, std::nullopt, stored_value};
            const datastore_change record = change_of(item);
            const datastore_backend_call call = {below->c_str(), &record, nullptr, nullptr};
            datastore_backend_apply(&call, table);
        }
    }
    return PLATFORM_OK;
}
