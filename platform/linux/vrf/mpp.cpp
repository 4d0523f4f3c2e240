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
#include "linux/process/recorded_commands.h"
#include "linux/reporting/log_message_internal.h"
#include "linux/vrf/mpp_filter.h"
#include "linux/vrf/mpp_internal.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"

/// A block outlives the agent: if the agent dies before it has loaded a VRF's access lists, the VRF stays closed until
/// they are loaded. The next agent takes such blocks over at mpp_init, those of single services as well, and lifts them
/// when it first reaches its loop; by then it has applied the stored configuration, including access lists, and has
/// blocked again what it could not load. So the death of an agent locks nobody out, and no port opens before its lists
/// are in force.
namespace {

constexpr uint64_t retry_delay = 1000000;  ///< microseconds
constexpr uint64_t retry_accuracy = 10000;

struct vrf_state {
    uint32_t services = 0;  ///< MPP_SERVICE_ codes
    bool initialised = false;
    bool blocked = false;
    bool unblock_requested = false;
    filter_ports unlisted = 0;  ///< blocked because their access lists are not loaded, whatever `blocked` says
    filter_ports opening = 0;   ///< of these, the ones to be opened when the loop is reached
    bool filter_stale = false;  ///< the packet filter could not be made to block `unlisted`
    time_t closed_since = 0;    ///< since when anything is blocked; 0 if nothing is
    std::string failure;        ///< the last failure logged, so that it is not logged repeatedly
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

/// What the packet filter has to block.
filter_ports ports_to_block(const vrf_state& vrf) {
    return vrf.blocked ? filter_all_ports : vrf.unlisted;
}

/// Must be called whenever `blocked` or `unlisted` may have changed.
void note_moment(vrf_state& vrf) {
    if (ports_to_block(vrf) == 0) {
        vrf.closed_since = 0;
    } else if (vrf.closed_since == 0) {
        vrf.closed_since = time(nullptr);
    }
}

/// Ends an operation. Logs a failure once; after a success the next failure is logged again.
platform_status report(vrf_state& vrf, platform_status status, const std::string& failure) {
    note_moment(vrf);
    if (status == PLATFORM_OK) {
        vrf.failure.clear();
    } else if (vrf.failure != failure) {
        platform_log(LOG_ERR, "%s", failure.c_str());
        vrf.failure = failure;
    }
    return status;
}

/// The kernel's state of the VRF is gone or does not exist yet; the agent's requests are kept.
void forget_filter(vrf_state& vrf) {
    const uint32_t services = vrf.services;
    vrf = {};
    vrf.services = services;
}

/// Whether the VRF waits for the loop.
bool is_waiting(const vrf_state& vrf) {
    return vrf.unblock_requested || vrf.opening != 0 || vrf.filter_stale;
}

platform_status change_filter(const std::string& name, filter_ports blocked, std::string& failure) {
    return blocked == 0 ? mpp_filter_open(name, failure) : mpp_filter_block(name, blocked, failure);
}

/// Lifts the blocks whose end was requested.
platform_status open_vrf(const std::string& name, vrf_state& vrf) {
    vrf_state wanted = vrf;
    wanted.unlisted &= ~wanted.opening;
    wanted.blocked = wanted.blocked && !wanted.unblock_requested;
    wanted.opening = 0;
    wanted.unblock_requested = false;
    wanted.filter_stale = false;
    std::string failure;
    platform_status status = change_filter(name, ports_to_block(wanted), failure);
    if (status == ENOENT) {
        // The packet filter disappeared with the namespace.
        forget_filter(wanted);
        status = PLATFORM_OK;
    }
    if (status == PLATFORM_OK) {
        vrf = std::move(wanted);
    }
    return report(vrf, status, failure);
}

/// Whether the VRF has no state worth keeping.
bool is_idle(const vrf_state& vrf) {
    return vrf.services == 0 && !vrf.initialised && !vrf.blocked && vrf.unlisted == 0 && !is_waiting(vrf);
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
        if (is_waiting(vrf) && open_vrf(name, vrf) != PLATFORM_OK) {
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

/// Makes the loop open the requested VRFs before it does anything else. A copy of the agent whose commands are
/// recorded never reaches its loop.
platform_status open_when_loop_is_reached() {
    if (commands_are_recorded()) {
        return PLATFORM_OK;
    }
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
        filter_ports blocked = 0;
        const platform_status status = mpp_filter_blocked(name, blocked, failure);
        if (status == PLATFORM_OK && blocked == 0) {
            continue;
        }
        // A filter that cannot be read may also be closed.
        vrf_state& vrf = state.vrfs[name];
        report(vrf, status, failure);
        vrf.blocked = blocked == filter_all_ports;
        vrf.unblock_requested = true;
        vrf.unlisted = vrf.blocked ? 0 : blocked;
        vrf.opening = vrf.unlisted;
        note_moment(vrf);
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
    const platform_status status = mpp_filter_make(name, ports_to_block(vrf), failure);
    vrf.initialised = status == PLATFORM_OK;
    return report(vrf, status, failure);
}

platform_status block(const std::string& name) {
    vrf_state& vrf = state.vrfs[name];
    vrf.unblock_requested = false;
    std::string failure;
    const platform_status status = mpp_filter_block(name, filter_all_ports, failure);
    if (status == PLATFORM_OK) {
        vrf.initialised = true;
        vrf.blocked = true;
    }
    return report(vrf, status, failure);
}

/// Nothing needs to be written while the VRF is blocked as a whole: it will be opened with these ports still blocked.
platform_status block_ports(const std::string& name, filter_ports ports) {
    vrf_state& vrf = state.vrfs[name];
    vrf.unlisted |= ports;
    vrf.opening &= ~ports;
    if (vrf.blocked) {
        return PLATFORM_OK;
    }
    std::string failure;
    const platform_status status = mpp_filter_block(name, vrf.unlisted, failure);
    if (status == ENOENT) {
        forget_filter(vrf);
    } else {
        vrf.initialised = vrf.initialised || status == PLATFORM_OK;
        vrf.filter_stale = status != PLATFORM_OK;
    }
    return report(vrf, status, failure);
}

platform_status unblock_ports(const std::string& name, filter_ports ports) {
    const auto found = state.vrfs.find(name);
    if (found == state.vrfs.end() || (found->second.unlisted & ports) == 0) {
        return PLATFORM_OK;
    }
    const platform_status status = open_when_loop_is_reached();
    if (status == PLATFORM_OK) {
        found->second.opening |= ports;
    }
    return status;
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

/// No exception may reach the agent.
template <typename Operation>
platform_status guarded(Operation operation) {
    try {
        return operation();
    } catch (const std::exception&) {
        return ENOMEM;
    }
}

struct service_ports_row {
    uint32_t service;
    uint32_t family;
    filter_ports port;
    const char* name;
};
constexpr service_ports_row service_ports[] = {
    {MPP_SERVICE_SSH, MPP_FAMILY_IPV4, filter_ssh_ipv4, "ssh ipv4"},
    {MPP_SERVICE_SSH, MPP_FAMILY_IPV6, filter_ssh_ipv6, "ssh ipv6"},
    {MPP_SERVICE_NETCONF, MPP_FAMILY_IPV4, filter_netconf_ipv4, "netconf ipv4"},
    {MPP_SERVICE_NETCONF, MPP_FAMILY_IPV6, filter_netconf_ipv6, "netconf ipv6"},
};

std::vector<std::string> names_of(filter_ports ports) {
    std::vector<std::string> names;
    for (const service_ports_row& row : service_ports) {
        if ((ports & row.port) != 0) {
            names.emplace_back(row.name);
        }
    }
    return names;
}

/// The port of a service in a family, or 0.
filter_ports port_of(uint32_t service, uint32_t family) {
    for (const service_ports_row& row : service_ports) {
        if (row.service == service && row.family == family) {
            return row.port;
        }
    }
    return 0;
}

platform_status for_port(uint32_t service, uint32_t family, const char* vrf_name,
                         platform_status (*operation)(const std::string& name, filter_ports ports)) {
    const filter_ports port = port_of(service, family);
    if (port == 0 || vrf_name == nullptr || !vrf_name_is_valid(vrf_name)) {
        return EINVAL;
    }
    return guarded([&] {
        const platform_status status = operation(vrf_name, port);
        forget_idle_vrfs();
        return status;
    });
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

platform_status mpp_service_block(uint32_t service, uint32_t family, const char* vrf_name) {
    return for_port(service, family, vrf_name, [](const std::string& name, filter_ports ports) {
        const platform_status status = block_ports(name, ports);
        if (status != PLATFORM_OK && status != ENOENT) {
            open_when_loop_is_reached();
        }
        return status;
    });
}

platform_status mpp_service_unblock(uint32_t service, uint32_t family, const char* vrf_name) {
    return for_port(service, family, vrf_name, unblock_ports);
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
            forget_filter(state.vrfs[name]);
            forget_idle_vrfs();
        }
        return PLATFORM_OK;
    });
}

std::vector<mpp_vrf_status> mpp_status() {
    std::vector<mpp_vrf_status> all;
    for (const auto& [name, vrf] : state.vrfs) {
        all.push_back({name, (vrf.services & MPP_SERVICE_SSH) != 0, (vrf.services & MPP_SERVICE_NETCONF) != 0,
                       vrf.initialised, vrf.blocked, vrf.unblock_requested, names_of(vrf.unlisted), vrf.closed_since,
                       ports_to_block(vrf)});
    }
    return all;
}

platform_status mpp_lift_blocks(const std::string& vrf_name, std::vector<std::string>& lifted) {
    const auto found = state.vrfs.find(vrf_name);
    if (found == state.vrfs.end() || ports_to_block(found->second) == 0) {
        return PLATFORM_OK;
    }
    const vrf_state before = found->second;
    std::vector<std::string> names = names_of(ports_to_block(before));
    found->second.unblock_requested = true;
    found->second.opening = before.unlisted;
    const platform_status status = open_vrf(vrf_name, found->second);
    if (status == PLATFORM_OK) {
        lifted = std::move(names);
    } else {
        found->second.unblock_requested = before.unblock_requested;
        found->second.opening = before.opening;
    }
    return status;
}

void mpp_reset() {
    drop_sources();
    state.open_services = 0;
    state.leftovers_taken_over = false;
    state.vrfs.clear();
}
