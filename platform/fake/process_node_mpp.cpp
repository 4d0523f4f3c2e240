#include <errno.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <tuple>

#include "fake_internal.h"
#include "platform/file_system_list.h"
#include "platform/mpp.h"
#include "platform/node_identity.h"
#include "platform/shell_commands.h"
#include "platform/vrf_table.h"
#include "taken_commands.h"

namespace fake_platform {
namespace {

struct mpp_state {
    std::set<uint32_t> open;
    std::set<std::pair<uint32_t, std::string>> set;
    std::set<std::string> initialised;
    std::set<std::string> blocked;
    std::set<std::tuple<uint32_t, uint32_t, std::string>> blocked_services;
    std::set<std::string> namespaces;
};

struct node_state {
    uint32_t role = PROCESS_ROLE_PRIMARY;
    uint32_t respawn_count = 1;
    uint32_t progress_reports = 0;
    uint32_t waits = 0;
    std::map<std::string, int, std::less<>> taken_commands;
    std::vector<std::string> steps;
    uint32_t node_id = 1;
    std::map<uint32_t, std::string> node_names = {{1, "node0"}};
    std::map<std::string, uint32_t> vrf_ids;
    uint32_t next_vrf_id = 1;
    std::vector<std::string> file_systems = {"disk0:", "harddisk:"};
    std::vector<const char*> file_system_array;
};

mpp_state mpp;
node_state node;

}  // namespace

void set_role(uint32_t role) {
    node.role = role;
}

void set_respawn_count(uint32_t count) {
    node.respawn_count = count;
}

void set_node(uint32_t id, std::string name) {
    node.node_id = id;
    node.node_names[id] = std::move(name);
}

void set_vrf_id(std::string vrf_name, uint32_t id) {
    node.vrf_ids[std::move(vrf_name)] = id;
}

void set_file_systems(std::vector<std::string> names) {
    node.file_systems = std::move(names);
}

bool mpp_open(uint32_t service) {
    return mpp.open.count(service) != 0;
}

bool vrf_set(uint32_t service, std::string_view vrf_name) {
    return mpp.set.count({service, std::string(vrf_name)}) != 0;
}

bool vrf_initialised(std::string_view vrf_name) {
    return mpp.initialised.count(std::string(vrf_name)) != 0;
}

bool vrf_blocked(std::string_view vrf_name) {
    return mpp.blocked.count(std::string(vrf_name)) != 0;
}

bool service_blocked(uint32_t service, uint32_t family, std::string_view vrf_name) {
    return mpp.blocked_services.count({service, family, std::string(vrf_name)}) != 0;
}

bool namespace_announced(std::string_view namespace_name) {
    return mpp.namespaces.count(std::string(namespace_name)) != 0;
}

void take_command(std::string command, int status) {
    node.taken_commands[std::move(command)] = status;
}

uint32_t progress_reports() {
    return node.progress_reports;
}
uint32_t waits() {
    return node.waits;
}

const std::vector<std::string>& steps() {
    return node.steps;
}

namespace internal {

void reset_process_node_mpp() {
    mpp = mpp_state();
    node = node_state();
}

}  // namespace internal
}  // namespace fake_platform

using namespace fake_platform;
using internal::enter;

uint32_t process_manager_role(void) {
    enter("process_manager_role", {});
    return node.role;
}

void process_manager_ready(void) {
    enter("process_manager_ready", {});
}

uint32_t platform_take_command(const char* command, int* status) {
    const auto taken = node.taken_commands.find(command);
    if (taken == node.taken_commands.end()) {
        return 0;
    }
    *status = taken->second;
    return 1;
}

void process_manager_progress(void) {
    node.progress_reports++;
}

void process_manager_waiting(void) {
    node.waits++;
}

void process_manager_step(const char* work, uint32_t done, uint32_t total) {
    process_manager_progress();
    node.steps.push_back(std::string(work) + ' ' + std::to_string(done) + '/' + std::to_string(total));
}

int process_manager_wait_primary(void) {
    const platform_status status = enter("process_manager_wait_primary", {});
    errno = status != PLATFORM_OK ? static_cast<int>(status) : errno;
    return status != PLATFORM_OK ? -1 : 0;
}

uint32_t process_manager_respawn_count(void) {
    enter("process_manager_respawn_count", {});
    return node.respawn_count;
}

platform_status node_identity_id(uint32_t* node_id) {
    const platform_status status = enter("node_identity_id", {});
    if (status == PLATFORM_OK) {
        *node_id = node.node_id;
    }
    return status;
}

platform_status node_identity_name(uint32_t node_id, char* name, size_t size) {
    if (const platform_status status = enter("node_identity_name", {node_id}); status != PLATFORM_OK) {
        return status;
    }
    const auto known = node.node_names.find(node_id);
    if (known == node.node_names.end()) {
        return ENOENT;
    }
    if (size > 0) {
        const size_t length = std::min(known->second.size(), size - 1);
        memcpy(name, known->second.data(), length);
        name[length] = '\0';
    }
    return PLATFORM_OK;
}

platform_status vrf_table_lookup(const char* vrf_name, uint32_t* vrf_id) {
    if (const platform_status status = enter("vrf_table_lookup", {vrf_name}); status != PLATFORM_OK) {
        return status;
    }
    const auto [row, fresh] = node.vrf_ids.emplace(vrf_name, node.next_vrf_id);
    node.next_vrf_id += fresh;
    *vrf_id = row->second;
    return PLATFORM_OK;
}

const char* const* file_system_list_get(void) {
    if (const platform_status status = enter("file_system_list_get", {}); status != PLATFORM_OK) {
        errno = static_cast<int>(status);
        return nullptr;
    }
    node.file_system_array.clear();
    for (const std::string& name : node.file_systems) {
        node.file_system_array.push_back(name.c_str());
    }
    node.file_system_array.push_back(nullptr);
    return node.file_system_array.data();
}

platform_status mpp_init(uint32_t service) {
    const platform_status status = enter("mpp_init", {service});
    if (status == PLATFORM_OK) {
        mpp.open.insert(service);
    }
    return status;
}

void mpp_close(uint32_t service) {
    enter("mpp_close", {service});
    mpp.open.erase(service);
}

platform_status mpp_vrf_set(uint32_t service, const char* vrf_name) {
    const platform_status status = enter("mpp_vrf_set", {service, vrf_name});
    if (status == PLATFORM_OK) {
        mpp.set.insert({service, vrf_name});
    }
    return status;
}

platform_status mpp_vrf_unset(uint32_t service, const char* vrf_name) {
    const platform_status status = enter("mpp_vrf_unset", {service, vrf_name});
    if (status == PLATFORM_OK) {
        mpp.set.erase({service, vrf_name});
    }
    return status;
}

platform_status mpp_vrf_nft_init(const char* vrf_name) {
    const platform_status status = enter("mpp_vrf_nft_init", {vrf_name});
    if (status == PLATFORM_OK) {
        mpp.initialised.insert(vrf_name);
    }
    return status;
}

platform_status mpp_vrf_block(const char* vrf_name) {
    const platform_status status = enter("mpp_vrf_block", {vrf_name});
    if (status == PLATFORM_OK) {
        mpp.blocked.insert(vrf_name);
    }
    return status;
}

platform_status mpp_vrf_unblock(const char* vrf_name) {
    const platform_status status = enter("mpp_vrf_unblock", {vrf_name});
    if (status == PLATFORM_OK) {
        mpp.blocked.erase(vrf_name);
    }
    return status;
}

platform_status mpp_service_block(uint32_t service, uint32_t family, const char* vrf_name) {
    const platform_status status = enter("mpp_service_block", {service, family, vrf_name});
    if (status == PLATFORM_OK) {
        mpp.blocked_services.insert({service, family, vrf_name});
    }
    return status;
}

platform_status mpp_service_unblock(uint32_t service, uint32_t family, const char* vrf_name) {
    const platform_status status = enter("mpp_service_unblock", {service, family, vrf_name});
    if (status == PLATFORM_OK) {
        mpp.blocked_services.erase({service, family, vrf_name});
    }
    return status;
}

platform_status mpp_namespace_created(const char* namespace_name) {
    const platform_status status = enter("mpp_namespace_created", {namespace_name});
    if (status == PLATFORM_OK) {
        mpp.namespaces.insert(namespace_name);
    }
    return status;
}

platform_status mpp_namespace_deleted(const char* namespace_name) {
    const platform_status status = enter("mpp_namespace_deleted", {namespace_name});
    if (status == PLATFORM_OK) {
        mpp.namespaces.erase(namespace_name);
    }
    return status;
}
