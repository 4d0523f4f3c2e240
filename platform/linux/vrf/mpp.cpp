#include "platform/mpp.h"

#include <syslog.h>
#include <systemd/sd-event.h>

#include <cerrno>
#include <ctime>
#include <exception>
#include <map>
#include <string>
#include <string_view>

#include "linux/process/event_manager_internal.h"
#include "linux/reporting/log_message_internal.h"
#include "linux/vrf/mpp_filter.h"
#include "linux/vrf/mpp_internal.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"

/// A block outlives the agent: if the agent dies before it has loaded a VRF's access lists, the VRF stays closed until
/// they are loaded. The next agent takes such blocks over at mpp_init and opens those VRFs when it first reaches its
/// loop; by then it has applied the stored configuration, including access lists. So the death of an agent locks nobody
/// out, and no port opens before its lists are in force.
namespace {

constexpr uint64_t retry_delay = 1000000;  ///< microseconds
constexpr uint64_t retry_accuracy = 10000;

struct vrf_state {
    uint32_t services = 0;  ///< MPP_SERVICE_ codes
    bool initialised = false;
    bool blocked = false;
    bool unblock_requested = false;
    std::string failure;  ///< the last failure logged, so that it is not logged repeatedly
};

struct {
    uint32_t open_services = 0;
    bool leftovers_taken_over = false;
    std::map<std::string, vrf_state> vrfs;
    struct event_manager* manager = nullptr;  ///< its loop has the two sources
    sd_event_source* unblock = nullptr;
    sd_event_source* retry = nullptr;
} state;

bool is_service(uint32_t service) {
    return service == MPP_SERVICE_SSH || service == MPP_SERVICE_NETCONF;
}

/// Logs a failure once. After a success the next failure is logged again.
platform_status report(vrf_state& vrf, platform_status status, const std::string& failure) {
    if (status == PLATFORM_OK) {
        vrf.failure.clear();
    } else if (vrf.failure != failure) {
        platform_log(LOG_ERR, "%s", failure.c_str());
        vrf.failure = failure;
    }
    return status;
}

platform_status open_vrf(const std::string& name, vrf_state& vrf) {
    std::string failure;
    platform_status status = mpp_filter_open(name, failure);
    if (status == ENOENT) {
        // The packet filter disappeared with the namespace.
        vrf.initialised = false;
        status = PLATFORM_OK;
    }
    if (status == PLATFORM_OK) {
        vrf.blocked = false;
        vrf.unblock_requested = false;
    }
    return report(vrf, status, failure);
}

/// Whether the VRF has no state worth keeping.
bool is_idle(const vrf_state& vrf) {
    return vrf.services == 0 && !vrf.initialised && !vrf.blocked && !vrf.unblock_requested;
}

void forget_idle_vrfs() {
    std::erase_if(state.vrfs, [](const auto& entry) { return is_idle(entry.second); });
}

void drop_sources() {
    sd_event_source_disable_unref(state.unblock);
    sd_event_source_disable_unref(state.retry);
    state.unblock = nullptr;
    state.retry = nullptr;
    state.manager = nullptr;
}

/// Retries what cannot be opened now: a VRF that stays closed may have been the operator's only way in.
void open_requested() {
    bool again = false;
    for (auto& [name, vrf] : state.vrfs) {
        if (vrf.unblock_requested && open_vrf(name, vrf) != PLATFORM_OK) {
            again = true;
        }
    }
    forget_idle_vrfs();
    if (again) {
        sd_event_source_set_time_relative(state.retry, retry_delay);
        sd_event_source_set_enabled(state.retry, SD_EVENT_ONESHOT);
    }
}

int loop_is_reached(sd_event_source*, void*) {
    try {
        open_requested();
    } catch (const std::exception& failure) {
        platform_log(LOG_ERR, "Failed to open the ports of VRFs: %s", failure.what());
        sd_event_source_set_enabled(state.unblock, SD_EVENT_ONESHOT);
    }
    return 0;
}

int retry_is_due(sd_event_source*, uint64_t, void*) {
    return loop_is_reached(nullptr, nullptr);
}

/// Returns 0 or a negative errno value.
int add_sources(sd_event* loop) {
    int result = sd_event_add_defer(loop, &state.unblock, loop_is_reached, nullptr);
    if (result >= 0) {
        result = sd_event_source_set_priority(state.unblock, EVENT_PRIORITY_UNBLOCK);
    }
    if (result >= 0) {
        result = sd_event_add_time_relative(loop, &state.retry, CLOCK_MONOTONIC, retry_delay, retry_accuracy,
                                            retry_is_due, nullptr);
    }
    return result < 0 ? result : sd_event_source_set_enabled(state.retry, SD_EVENT_OFF);
}

/// Makes the loop open the requested VRFs before it does anything else.
platform_status open_when_loop_is_reached() {
    struct event_manager* manager = event_manager_current();
    if (manager == nullptr) {
        return ENOTCONN;
    }
    if (state.manager != manager) {
        drop_sources();
        const int result = add_sources(event_manager_sd_event(manager));
        if (result < 0) {
            drop_sources();
            return static_cast<platform_status>(-result);
        }
        state.manager = manager;
    }
    const int result = sd_event_source_set_enabled(state.unblock, SD_EVENT_ONESHOT);
    return result < 0 ? static_cast<platform_status>(-result) : PLATFORM_OK;
}

platform_status take_over_leftovers() {
    for (const std::string& namespace_name : namespace_list()) {
        const std::string name = namespace_name.substr(sizeof namespace_name_prefix - 1);
        std::string failure;
        bool blocked = false;
        const platform_status status = mpp_filter_is_blocked(name, blocked, failure);
        if (status == PLATFORM_OK && !blocked) {
            continue;
        }
        // A filter that cannot be read may also be closed.
        vrf_state& vrf = state.vrfs[name];
        report(vrf, status, failure);
        vrf.blocked = blocked;
        vrf.unblock_requested = true;
    }
    state.leftovers_taken_over = true;
    return open_when_loop_is_reached();
}

platform_status initialise(uint32_t service) {
    std::string failure;
    platform_status status = mpp_filter_available(failure);
    if (status != PLATFORM_OK) {
        platform_log(LOG_ERR, "%s", failure.c_str());
        return status;
    }
    if (!state.leftovers_taken_over) {
        status = take_over_leftovers();
    }
    if (status == PLATFORM_OK) {
        state.open_services |= service;
    }
    return status;
}

platform_status mark(uint32_t service, const char* vrf_name, bool reachable) {
    if (!is_service(service) || !vrf_name_is_valid(vrf_name)) {
        return EINVAL;
    }
    if ((state.open_services & service) == 0) {
        return ENOTCONN;
    }
    vrf_state& vrf = state.vrfs[vrf_name];
    vrf.services = reachable ? vrf.services | service : vrf.services & ~service;
    forget_idle_vrfs();
    return PLATFORM_OK;
}

/// The table is replaced the first time, so that nothing of an earlier version remains; a block is preserved.
platform_status make_filter(const std::string& name) {
    vrf_state& vrf = state.vrfs[name];
    std::string failure;
    const platform_status status = mpp_filter_make(name, vrf.blocked, failure);
    vrf.initialised = status == PLATFORM_OK;
    return report(vrf, status, failure);
}

platform_status block(const std::string& name) {
    vrf_state& vrf = state.vrfs[name];
    vrf.unblock_requested = false;
    std::string failure;
    const platform_status status = mpp_filter_block(name, failure);
    if (status == PLATFORM_OK) {
        vrf.initialised = true;
        vrf.blocked = true;
    }
    return report(vrf, status, failure);
}

platform_status unblock(const std::string& name) {
    const platform_status status = open_when_loop_is_reached();
    if (status == PLATFORM_OK) {
        state.vrfs[name].unblock_requested = true;
    }
    return status;
}

/// The VRF's name; empty if this is not a VRF's namespace.
std::string vrf_of(const char* namespace_name) {
    constexpr std::string_view prefix = namespace_name_prefix;
    const std::string_view name = namespace_name == nullptr ? "" : namespace_name;
    if (name.substr(0, prefix.size()) != prefix || !vrf_name_is_valid(name.substr(prefix.size()))) {
        return {};
    }
    return std::string(name.substr(prefix.size()));
}

/// The kernel's state of the VRF is gone or does not exist yet; what the agent has requested stays.
void forget_filter(const std::string& name) {
    vrf_state& vrf = state.vrfs[name];
    vrf.initialised = false;
    vrf.blocked = false;
    vrf.unblock_requested = false;
    vrf.failure.clear();
}

/// No exception may reach the agent.
template <typename Operation>
platform_status guarded(Operation operation) {
    try {
        return operation();
    } catch (const std::exception&) {
        return ENOMEM;
    }
}

platform_status for_vrf(const char* vrf_name, platform_status (*operation)(const std::string& name)) {
    if (vrf_name == nullptr || !vrf_name_is_valid(vrf_name)) {
        return EINVAL;
    }
    return guarded([&] { return operation(vrf_name); });
}

}  // namespace

platform_status mpp_init(uint32_t service) {
    if (!is_service(service)) {
        return EINVAL;
    }
    return guarded([&] { return initialise(service); });
}

void mpp_close(uint32_t service) {
    state.open_services &= ~service;
}

platform_status mpp_vrf_set(uint32_t service, const char* vrf_name) {
    return vrf_name == nullptr ? EINVAL : guarded([&] { return mark(service, vrf_name, true); });
}

platform_status mpp_vrf_unset(uint32_t service, const char* vrf_name) {
    return vrf_name == nullptr ? EINVAL : guarded([&] { return mark(service, vrf_name, false); });
}

platform_status mpp_vrf_nft_init(const char* vrf_name) {
    return for_vrf(vrf_name, make_filter);
}

platform_status mpp_vrf_block(const char* vrf_name) {
    return for_vrf(vrf_name, block);
}

platform_status mpp_vrf_unblock(const char* vrf_name) {
    return for_vrf(vrf_name, unblock);
}

platform_status mpp_namespace_created(const char* namespace_name) {
    return guarded([&]() -> platform_status {
        const std::string name = vrf_of(namespace_name);
        if (name.empty()) {
            return EINVAL;
        }
        // `ip netns add` creates the file before it becomes a namespace.
        return namespace_is_attached(namespace_name) ? 0 : ENOENT;
    });
}

platform_status mpp_namespace_deleted(const char* namespace_name) {
    return guarded([&]() -> platform_status {
        const std::string name = vrf_of(namespace_name);
        if (name.empty()) {
            return EINVAL;
        }
        if (state.vrfs.count(name) == 1) {
            forget_filter(name);
            forget_idle_vrfs();
        }
        return PLATFORM_OK;
    });
}

std::vector<mpp_vrf_status> mpp_status() {
    std::vector<mpp_vrf_status> all;
    for (const auto& [name, vrf] : state.vrfs) {
        all.push_back({name, (vrf.services & MPP_SERVICE_SSH) != 0, (vrf.services & MPP_SERVICE_NETCONF) != 0,
                       vrf.initialised, vrf.blocked, vrf.unblock_requested});
    }
    return all;
}

void mpp_reset() {
    drop_sources();
    state.open_services = 0;
    state.leftovers_taken_over = false;
    state.vrfs.clear();
}
