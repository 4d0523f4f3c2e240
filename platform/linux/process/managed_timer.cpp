#include "platform/managed_timer.h"

#include <systemd/sd-event.h>

#include <cerrno>
#include <ctime>
#include <map>
#include <new>

#include "linux/process/event_manager_internal.h"

struct managed_timer_leaf {
    int32_t handle;
    sd_event_source* source;  ///< null until the first start
};

namespace {

struct timer_registration {
    struct event_manager* manager;
    managed_timer_handler handler;
    void* context;
};

/// Handles are never reused, so a leaf of a detached handler never finds another handler.
int32_t next_handle;

std::map<int32_t, timer_registration>& registrations() {
    static std::map<int32_t, timer_registration> all;
    return all;
}

constexpr uint64_t microseconds_per_second = 1000000;
constexpr uint64_t accuracy = 10000;  ///< microseconds; the default of sd-event is a quarter of a second

int leaf_has_expired(sd_event_source*, uint64_t, void* userdata) {
    auto* leaf = static_cast<managed_timer_leaf*>(userdata);
    const auto found = registrations().find(leaf->handle);
    if (found != registrations().end()) {
        // Copied, because the handler may detach itself and free the leaf, which is not accessed afterwards.
        const timer_registration registration = found->second;
        registration.handler(leaf, registration.context);
    }
    return 0;
}

/// The first start creates the leaf's source; later ones only move its time.
int start_source(managed_timer_leaf* leaf, sd_event* loop, uint64_t microseconds) {
    if (leaf->source == nullptr) {
        return sd_event_add_time_relative(loop, &leaf->source, CLOCK_BOOTTIME, microseconds, accuracy, leaf_has_expired,
                                          leaf);
    }
    const int result = sd_event_source_set_time_relative(leaf->source, microseconds);
    return result < 0 ? result : sd_event_source_set_enabled(leaf->source, SD_EVENT_ONESHOT);
}

}  // namespace

platform_status managed_timer_attach(struct event_manager* manager, managed_timer_handler handler, void* context,
                                     int32_t* handle) {
    if (manager == nullptr || handler == nullptr || handle == nullptr) {
        return EINVAL;
    }
    if (next_handle == INT32_MAX) {
        return ENOSPC;
    }
    try {
        registrations().emplace(next_handle, timer_registration{manager, handler, context});
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    *handle = next_handle++;
    return PLATFORM_OK;
}

platform_status managed_timer_detach(int32_t handle) {
    return registrations().erase(handle) == 1 ? 0 : EINVAL;
}

platform_status managed_timer_leaf_create(int32_t handle, struct managed_timer_leaf** leaf) {
    if (leaf == nullptr || registrations().count(handle) == 0) {
        return EINVAL;
    }
    auto* created = new (std::nothrow) managed_timer_leaf{handle, nullptr};
    if (created == nullptr) {
        return ENOMEM;
    }
    *leaf = created;
    return PLATFORM_OK;
}

platform_status managed_timer_leaf_start(struct managed_timer_leaf* leaf, uint32_t seconds) {
    if (leaf == nullptr) {
        return EINVAL;
    }
    const auto registration = registrations().find(leaf->handle);
    if (registration == registrations().end()) {
        return EINVAL;
    }
    const int result =
        start_source(leaf, event_manager_sd_event(registration->second.manager), seconds * microseconds_per_second);
    return result < 0 ? static_cast<platform_status>(-result) : PLATFORM_OK;
}

void managed_timer_leaf_stop(struct managed_timer_leaf* leaf) {
    if (leaf != nullptr && leaf->source != nullptr) {
        sd_event_source_set_enabled(leaf->source, SD_EVENT_OFF);
    }
}

void managed_timer_leaf_free(struct managed_timer_leaf* leaf) {
    if (leaf != nullptr) {
        sd_event_source_disable_unref(leaf->source);
        delete leaf;
    }
}
