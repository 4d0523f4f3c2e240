#include <errno.h>

#include <algorithm>
#include <new>

#include "linux/datastore/state.h"

namespace {

constexpr uint32_t all_events = DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET | DATASTORE_EVENT_DELETE;

platform_status add(const datastore_registration& registration) try {
    the_datastore().registrations.push_back(std::make_unique<datastore_registration>(registration));
    return PLATFORM_OK;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

bool is_valid(const datastore_binding* binding, const char* pattern, uint32_t event_mask) {
    return binding != nullptr && pattern != nullptr && event_mask != 0 && (event_mask & ~all_events) == 0;
}

}  // namespace

// Commits come from the control socket and thus already run on the loop's thread. The callbacks are therefore called
// directly, without the event manager they were registered with.
platform_status datastore_register_verification(datastore_binding* binding, const char* pattern, uint32_t event_mask,
                                                datastore_verify_callback verify, datastore_apply_callback apply,
                                                event_manager*, void* context) {
    if (!is_valid(binding, pattern, event_mask) || (verify == nullptr && apply == nullptr)) {
        return EINVAL;
    }
    return add({binding, binding->path, pattern, event_mask, verify, apply, nullptr, context});
}

platform_status datastore_register_notification(datastore_binding* binding, const char* item, uint32_t event_mask,
                                                datastore_notification_callback callback, event_manager*,
                                                void* context) {
    if (!is_valid(binding, item, event_mask) || callback == nullptr) {
        return EINVAL;
    }
    return add({binding, binding->path, item, event_mask, nullptr, nullptr, callback, context});
}

bool datastore_pattern_matches(std::string_view pattern, std::string_view item) {
    if (pattern.empty()) {
        return true;
    }
    const bool whole_tree = pattern.back() == '/';
    while (!pattern.empty()) {
        const std::string_view expected = schema_cut_component(pattern);
        const std::string_view found = schema_cut_component(item);
        if (expected == "*" ? found.empty() : expected != found) {
            return false;
        }
    }
    return whole_tree == !item.empty();
}

std::string_view datastore_concerned_item(const datastore_registration& registration, std::string_view path,
                                          uint32_t events) {
    if (registration.owner == nullptr || (registration.event_mask & events) == 0 ||
        path.compare(0, registration.path.size(), registration.path) != 0) {
        return {};
    }
    const std::string_view item = path.substr(registration.path.size());
    return datastore_pattern_matches(registration.pattern, item) ? item : std::string_view();
}

void datastore_drop_orphans() {
    std::erase_if(the_datastore().registrations,
                  [](const std::unique_ptr<datastore_registration>& row) { return row->owner == nullptr; });
}

datastore_handler_scope::datastore_handler_scope() {
    the_datastore().handlers_running++;
}

datastore_handler_scope::~datastore_handler_scope() {
    the_datastore().handlers_running--;
    if (the_datastore().handlers_running == 0) {
        datastore_drop_orphans();
    }
}
