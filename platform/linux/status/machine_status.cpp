#include "linux/status/machine_status.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <variant>

#include "linux/access_lists/acl_service_internal.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/status/listening_ports.h"
#include "linux/status/loaded_rules.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"

namespace {

constexpr char servers[] = "/cfg/gl/crypto/ssh/server/sshd/";
constexpr char server_file_prefix[] = "/sshd_config_";

struct service_row {
    uint32_t service;
    const char* word;
    uint16_t port;
    std::string_view items;  ///< below `servers`, before the VRF's name
};

constexpr service_row services[] = {
    {MPP_SERVICE_SSH, "ssh", 22, "vrf/"},
    {MPP_SERVICE_NETCONF, "netconf", 830, "vrf-netconf/"},
};

/// An item that configures a service: the VRF's name and the service. The name is empty for other items.
struct service_item {
    std::string vrf_name = {};
    const service_row* service = nullptr;
};

service_item service_item_of(std::string_view path) {
    if (!path.starts_with(servers)) {
        return {};
    }
    const std::string_view item = path.substr(sizeof servers - 1);
    if (item == "v2") {
        return {vrf_default_name, &services[0]};
    }
    for (const service_row& row : services) {
        if (item.starts_with(row.items)) {
            return {std::string(item.substr(row.items.size())), &row};
        }
    }
    return {};
}

struct family_row {
    uint32_t family;
    const char* word;
    size_t field;  ///< of a VRF's item
};

constexpr family_row families[] = {{ACL_FAMILY_IPV4, "ipv4", 1}, {ACL_FAMILY_IPV6, "ipv6", 2}};

constexpr const char* list_states[] = {"loaded", "outdated", "not_loaded", "waiting", "no_list", "empty", "unknown"};

using vrf_map = std::map<std::string, vrf_status, std::less<>>;

vrf_status& vrf_named(vrf_map& vrfs, const std::string& name) {
    vrf_status& vrf = vrfs[name];
    vrf.name = name;
    return vrf;
}

std::string list_name(const datastore_value& value, size_t field) {
    const auto* fields = std::get_if<datastore_fields>(&value);
    const bool present = fields != nullptr && field < fields->size() && (*fields)[field].has_value();
    const std::string* name = present ? std::get_if<std::string>(&*(*fields)[field]) : nullptr;
    return name != nullptr ? *name : std::string();
}

void take_item(vrf_map& vrfs, const std::string& path, const datastore_value& value) {
    const service_item item = service_item_of(path);
    if (item.service == nullptr) {
        return;
    }
    vrf_status& vrf = vrf_named(vrfs, item.vrf_name);
    vrf.services.insert(item.service->service);
    for (const family_row& family : families) {
        const std::string name = list_name(value, family.field);
        if (!name.empty()) {
            vrf.lists.push_back({item.service->service, family.family, name, list_state::unknown});
        }
    }
}

platform_status take_configuration(vrf_map& vrfs) {
    return datastore_visit(servers, [&vrfs](const std::string& path, const datastore_value& value) {
        take_item(vrfs, path, value);
        return true;
    });
}

platform_status take_vrf_table(vrf_map& vrfs) {
    std::vector<vrf_table_entry> entries;
    const platform_status status = vrf_table_list(entries);
    for (const vrf_table_entry& entry : entries) {
        vrf_named(vrfs, entry.name).id = entry.id;
    }
    return status;
}

void take_services(vrf_map& vrfs) {
    for (const std::string& name : namespace_list()) {
        vrf_named(vrfs, name.substr(sizeof namespace_name_prefix - 1)).has_namespace = true;
    }
    for (const mpp_vrf_status& protection : mpp_status()) {
        vrf_named(vrfs, protection.vrf_name).protection = protection;
    }
}

platform_status take_units(vrf_map& vrfs) {
    std::vector<std::string> names;
    names.reserve(vrfs.size());
    for (const auto& [name, vrf] : vrfs) {
        names.push_back(name);
    }
    server_unit_states units;
    const platform_status status = server_unit_states_query(names, units);
    for (auto& [name, unit] : units) {
        vrf_named(vrfs, name).unit = unit;
    }
    return status;
}

/// A record with another process than the running server's describes a different server.
std::optional<launch_record> launch_of(const vrf_status& vrf) {
    launch_record record;
    const bool is_read = launch_record_read(vrf.name, record) == PLATFORM_OK;
    const bool is_foreign =
        vrf.unit.has_value() && server_unit_runs(*vrf.unit) && record.process != vrf.unit->main_process;
    return is_read && !is_foreign ? std::optional(record) : std::nullopt;
}

void look_at_server(vrf_status& vrf) {
    const pid_t process = vrf.unit.has_value() ? vrf.unit->main_process : 0;
    if (process > 0) {
        vrf.runs_elsewhere = runs_in_another_namespace(process, vrf.name);
    }
    vrf.launch = launch_of(vrf);
}

platform_status look_at_ports(std::vector<vrf_status>& vrfs) {
    std::vector<pid_t> processes;
    std::vector<vrf_status*> owners;
    for (vrf_status& vrf : vrfs) {
        if (vrf.unit.has_value() && vrf.unit->main_process > 0) {
            processes.push_back(vrf.unit->main_process);
            owners.push_back(&vrf);
        }
    }
    std::vector<std::set<uint16_t>> ports;
    const platform_status status = listening_ports_query(processes, ports);
    for (size_t i = 0; i < owners.size(); i++) {
        owners[i]->ports = ports[i];
    }
    return status;
}

/// Whether a subject has the form "KIND NAME" or "KIND NAME ...", where the kind is one of the things that belong to a VRF.
bool names_vrf(std::string_view subject, std::string_view vrf_name) {
    for (const std::string_view kind :
         {"server file ", "server ", "unit ", "rules ", "protection ", "connection limit ", "local directives "}) {
        if (subject.starts_with(kind)) {
            const std::string_view rest = subject.substr(kind.size());
            return rest.substr(0, rest.find(' ')) == vrf_name;
        }
    }
    return false;
}

/// Whether a subject is about the VRF: "server NAME", "rules NAME ssh ipv4", "file FOLDER/sshd_config_NAME", or its item.
bool concerns(std::string_view subject, const std::string& vrf_name) {
    return names_vrf(subject, vrf_name) || subject.ends_with(server_file_prefix + vrf_name) ||
           (subject.starts_with(servers) && subject.ends_with('/' + vrf_name));
}

std::string rules_subject(const vrf_status& vrf, const list_status& list) {
    return "rules " + vrf.name + ' ' + service_word(list.service) + ' ' + family_word(list.family);
}

bool has_failure(const vrf_status& vrf, const std::string& subject) {
    return std::any_of(vrf.failures.begin(), vrf.failures.end(),
                       [&subject](const enforcement_entry& entry) { return entry.subject == subject; });
}

list_state state_of(const vrf_status& vrf, const list_status& list, const std::set<rule_place>& loaded,
                    platform_status asked) {
    std::vector<acl_stored_entry> entries;
    const platform_status stored = acl_list_entries(list.family, list.name, entries);
    if (stored == DATASTORE_NO_SUCH_LIST || (stored == PLATFORM_OK && entries.empty())) {
        return stored == PLATFORM_OK ? list_state::empty : list_state::no_list;
    }
    if (!vrf.has_namespace) {
        return list_state::waiting;
    }
    if (asked != PLATFORM_OK) {
        return list_state::unknown;
    }
    if (!loaded.contains({vrf.name, list.service, list.family})) {
        return list_state::not_loaded;
    }
    return has_failure(vrf, rules_subject(vrf, list)) ? list_state::outdated : list_state::loaded;
}

platform_status look_at_lists(std::vector<vrf_status>& vrfs) {
    std::vector<rule_place> places;
    for (const vrf_status& vrf : vrfs) {
        for (const list_status& list : vrf.lists) {
            if (vrf.has_namespace) {
                places.push_back({vrf.name, list.service, list.family});
            }
        }
    }
    std::set<rule_place> loaded;
    const platform_status status = loaded_rules_query(places, loaded);
    for (vrf_status& vrf : vrfs) {
        for (list_status& list : vrf.lists) {
            list.state = state_of(vrf, list, loaded, status);
        }
    }
    return status;
}

void look_at_failures(vrf_status& vrf, const std::vector<enforcement_entry>& failures) {
    std::copy_if(failures.begin(), failures.end(), std::back_inserter(vrf.failures),
                 [&vrf](const enforcement_entry& entry) { return concerns(entry.subject, vrf.name); });
}

bool is_shown(const vrf_status& vrf) {
    return !vrf.services.empty() || (vrf.unit.has_value() && server_unit_runs(*vrf.unit));
}

template <typename Rows, typename Member, typename Code>
auto& row_with(const Rows& rows, Member member, Code code) {
    return *std::find_if(std::begin(rows), std::end(rows) - 1, [&](const auto& row) { return row.*member == code; });
}

}  // namespace

platform_status machine_status_collect(machine_status& machine) {
    vrf_map vrfs;
    platform_status status = take_configuration(vrfs);
    if (status == PLATFORM_OK) {
        status = take_vrf_table(vrfs);
    }
    if (status != PLATFORM_OK) {
        return status;
    }
    take_services(vrfs);
    machine.units = take_units(vrfs);
    machine.failures = enforcement_list();
    for (auto& [name, vrf] : vrfs) {
        if (is_shown(vrf)) {
            look_at_server(vrf);
            look_at_failures(vrf, machine.failures);
            machine.vrfs.push_back(std::move(vrf));
        }
    }
    machine.ports = look_at_ports(machine.vrfs);
    machine.rules = look_at_lists(machine.vrfs);
    return PLATFORM_OK;
}

platform_status configured_services_read(configured_services& configured) {
    return datastore_visit(servers, [&configured](const std::string& path, const datastore_value&) {
        const service_item item = service_item_of(path);
        if (item.service != nullptr) {
            configured[item.vrf_name].insert(item.service->service);
        }
        return true;
    });
}

std::string vrf_of_service_item(std::string_view path) {
    return service_item_of(path).vrf_name;
}

uint16_t service_port(uint32_t service) {
    return row_with(services, &service_row::service, service).port;
}

const char* service_word(uint32_t service) {
    return row_with(services, &service_row::service, service).word;
}

const char* family_word(uint32_t family) {
    return row_with(families, &family_row::family, family).word;
}

const char* list_state_word(list_state state) {
    return list_states[static_cast<size_t>(state)];
}
