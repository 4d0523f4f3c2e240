/// The state of the machine for each VRF, compared with the configuration.
#ifndef LINUX_STATUS_MACHINE_STATUS_H
#define LINUX_STATUS_MACHINE_STATUS_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/launch_record.h"
#include "linux/enforcement/enforcement_internal.h"
#include "linux/status/unit_states.h"
#include "linux/vrf/mpp_internal.h"
#include "platform/status.h"

enum class list_state : uint8_t {
    loaded,
    outdated,    ///< rules are loaded, but the last change of the list could not be
    not_loaded,  ///< the kernel has no rules
    waiting,     ///< for the VRF's namespace
    no_list,     ///< the item names a list that does not exist
    empty,       ///< the list has no entries
    unknown      ///< the kernel could not be queried
};

/// An access list that an item names.
struct list_status {
    uint32_t service;  ///< MPP_SERVICE_SSH or MPP_SERVICE_NETCONF
    uint32_t family;   ///< ACL_FAMILY_IPV4 or ACL_FAMILY_IPV6
    std::string name;
    list_state state;
};

struct vrf_status {
    std::string name;
    std::optional<uint32_t> id;   ///< nothing if the VRF has no number yet
    std::set<uint32_t> services;  ///< configured ones: MPP_SERVICE_SSH, MPP_SERVICE_NETCONF
    bool has_namespace = false;
    std::optional<server_unit_state> unit;  ///< nothing if systemd did not answer
    bool runs_elsewhere = false;            ///< the server is in another namespace than the VRF's current one
    std::set<uint16_t> ports;               ///< where the server listens
    std::optional<launch_record> launch;    ///< of the running server, or of the last attempt to start one
    std::vector<list_status> lists;
    mpp_vrf_status protection = {};
    std::vector<enforcement_entry> failures;  ///< failures recorded as not in force that concern this VRF
};

struct machine_status {
    std::vector<vrf_status> vrfs;  ///< those with a configured service or a running server, in byte order of the names
    std::vector<enforcement_entry> failures;  ///< everything recorded as not in force
    platform_status units = PLATFORM_OK;      ///< whether systemd reported the states of its units
    platform_status ports = PLATFORM_OK;      ///< whether the kernel reported the listening sockets
    platform_status rules = PLATFORM_OK;      ///< whether the kernel reported its rules
};

/// Examines everything. Takes at most a few seconds, whatever hangs. Returns an error only if the configuration or the
/// VRF table cannot be read. Throws std::bad_alloc.
platform_status machine_status_collect(machine_status& machine);

/// The configured services of each VRF, by VRF name.
using configured_services = std::map<std::string, std::set<uint32_t>, std::less<>>;
platform_status configured_services_read(configured_services& configured);

/// Returns the VRF for which an item configures a service, or an empty string for any other item.
std::string vrf_of_service_item(std::string_view path);

/// The TCP port of a service.
uint16_t service_port(uint32_t service);

/// "ssh" or "netconf", "ipv4" or "ipv6", and the states in machine-readable form: "loaded", "not_loaded", ...
const char* service_word(uint32_t service);
const char* family_word(uint32_t family);
const char* list_state_word(list_state state);

#endif
