#include <errno.h>

#include <cstdlib>
#include <map>

#include "datastore_internal.h"

namespace fake_platform {
namespace {

using internal::datastore;
using internal::item_below;
using internal::item_matches;

/// A change of one item that really is one.
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

/// What the wished changes come to, in byte order of the paths; a later wish for the same path counts.
std::vector<item_change> effective_changes(const std::vector<change>& changes) {
    std::map<std::string, std::optional<value>> wished;
    for (const change& change : changes) {
        wished[change.path] = change.new_value;
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

/// Calls `visit` with every verification that the change concerns, and the item's path below its binding.
template <typename visitor>
void for_each_verification(const item_change& item, visitor visit) {
    const std::vector<internal::verification> registrations = datastore.verifications;
    for (const internal::verification& registration : registrations) {
        const std::optional<std::string> below = item_below(*registration.binding, item.path);
        if (below && item_matches(registration.pattern, *below) && (registration.event_mask & event_of(item)) != 0) {
            visit(registration, below->c_str());
        }
    }
}

/// Asks one verifier. Returns whether it accepts.
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

bool verify(const item_change& change, commit_result& result) {
    bool accepted = true;
    for_each_verification(change, [&](const internal::verification& registration, const char* item) {
        accepted = accepted && accepts(registration, item, change, result);
    });
    return accepted;
}

void apply(const item_change& change, commit_result& result) {
    const datastore_change record = change_of(change);
    for_each_verification(change, [&](const internal::verification& registration, const char* item) {
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

commit_result commit(const std::vector<change>& changes) {
    const std::vector<item_change> effective = effective_changes(changes);
    commit_result result;
    for (const item_change& item : effective) {
        if (!verify(item, result)) {
            return result;
        }
    }
    for (const item_change& item : effective) {
        store({item.path, item.now});
    }
    for (const item_change& item : effective) {
        apply(item, result);
    }
    for (const item_change& item : effective) {
        notify(item.path, event_of(item), item.now);
    }
    return result;
}

void notify(std::string_view path, uint32_t event, const std::optional<value>& value) {
    const std::vector<internal::notification> registrations = datastore.notifications;
    for (const internal::notification& registration : registrations) {
        const std::optional<std::string> below = item_below(*registration.binding, path);
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
    const auto items = datastore.items;
    for (const auto& [path, stored_value] : items) {
        const std::optional<std::string> below = item_below(*binding, path);
        if (below && item_matches(pattern, *below)) {
            const item_change item = {path, std::nullopt, stored_value};
            const datastore_change record = change_of(item);
            const datastore_backend_call call = {below->c_str(), &record, nullptr, nullptr};
            datastore_backend_apply(&call, table);
        }
    }
    return PLATFORM_OK;
}
