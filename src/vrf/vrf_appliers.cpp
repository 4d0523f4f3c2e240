#include "vrf/vrf_appliers.h"

#include <climits>
#include <cstring>
#include <span>

#include "config_files/config_writer.h"
#include "config_files/files.h"
#include "config_files/parameter_table.h"
#include "config_files/vrf_node.h"
#include "core/agent_state.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/text.h"
#include "core/upcalls.h"
#include "platform/enforcement.h"
#include "platform/mpp.h"
#include "platform/value_tuple.h"
#include "vrf/acl_attachment.h"
#include "vrf/acl_state.h"
#include "vrf/node_registry.h"
#include "vrf/protection.h"
#include "vrf/server_changes.h"
#include "vrf/server_lifecycle.h"
#include "vrf/service_unit.h"
#include "vrf/trace_points.h"
#include "vrf/vrf_namespace.h"

uint32_t default_vrf_configured = 0;

namespace {

constexpr char default_vrf[] = "default";
constexpr uint32_t vrf_name_component = 2;
constexpr size_t namespace_name_size = sizeof "vrf-" + vrf_name_size;

/// The settings requested by a VRF item.
struct vrf_request {
    const char* vrf_name;
    const char* v4_acl;  ///< null if the item names none; so is the next
    const char* v6_acl;
};

/// A service that a VRF's server can provide, and how its VRF items differ from those of the other service.
struct server_kind {
    const char* routine;
    const char* event_text;
    void (*describe)(const vrf_node* node, const vrf_request& request);
    item_kind item;
    uint32_t service;                ///< for management-plane protection
    size_t port;                     ///< index in the server parameter table
    bool port_yields_to_setting;     ///< a configured port overrides the VRF's own port line
    const char* subsystem;           ///< program of the service's subsystem; null if it has none
    bool follows_default_vrf;        ///< shares the VRF "default" with the protocol item
    bool restarts_remaining_server;  ///< restarts even an unchanged server that another item still uses
    acl_slot v4;
    acl_slot v6;
};

void describe_ssh(const vrf_node* node, const vrf_request& request) {
    debug_print("vrfnode->vrf_name: %s, name:%s", node != nullptr ? node->name : "", request.vrf_name);
}

void describe_netconf(const vrf_node*, const vrf_request& request) {
    debug_print("Netconf v4 acl name = %s, Netconf v6 acl name = %s", request.v4_acl != nullptr ? request.v4_acl : "",
                request.v6_acl != nullptr ? request.v6_acl : "");
}

constexpr server_kind ssh_server = {
    .routine = "sshd_apply_vrf_func",
    .event_text = "Event:=%d, Config:=ssh server vrf",
    .describe = describe_ssh,
    .item = ITEM_SSH,
    .service = MPP_SERVICE_SSH,
    .port = SERVER_PORT,
    .port_yields_to_setting = false,
    .subsystem = nullptr,
    .follows_default_vrf = true,
    .restarts_remaining_server = false,
    .v4 = {&vrf_node::ssh_v4_acl, acl_ssh_v4, &upcalls::ssh_configure_v4acl, &upcalls::ssh_remove_v4acl_config,
           "Failed to configure v4 acl = %s", "Failed to configure v4 acl", "for vrf: "},
    .v6 = {&vrf_node::ssh_v6_acl, acl_ssh_v6, &upcalls::ssh_configure_v6acl, &upcalls::ssh_remove_v6acl_config,
           "Failed to configure v6 acl = %s", "Failed to configure v6 acl", "for vrf: "},
};

constexpr server_kind netconf_server = {
    .routine = "sshd_apply_conf_netconf_vrf",
    .event_text = "Event:=%d, Config:=ssh server netconf vrf",
    .describe = describe_netconf,
    .item = ITEM_NETCONF,
    .service = MPP_SERVICE_NETCONF,
    .port = SERVER_NETCONF_PORT,
    .port_yields_to_setting = true,
    .subsystem = "/pkg/bin/netconf_sshd_proxy -i 0 -o 1",
    .follows_default_vrf = false,
    .restarts_remaining_server = true,
    .v4 = {&vrf_node::netconf_v4_acl, acl_netconf_v4, &upcalls::ssh_configure_v4acl, &upcalls::ssh_remove_v4acl_config,
           "Failed to configure netconf v4 acl = %s", "Failed to configure netconf v4 acl", "for vrf: "},
    .v6 = {&vrf_node::netconf_v6_acl, acl_netconf_v6, &upcalls::ssh_configure_v6acl, &upcalls::ssh_remove_v6acl_config,
           "Failed to configure netconf v6 acl = %s", "Failed to configure netconf v6 acl", "for vrf: "},
};

bool is_default_vrf(const char* vrf_name) {
    return std::strncmp(vrf_name, default_vrf, vrf_name_size - 1) == 0;
}

const char* given_name(const char* text) {
    return text != nullptr && text[0] != '\0' ? text : nullptr;
}

/// Unpacks the item's value; a deleted item has none. Returns 0, or -1 after logging the failure.
int read_request(const datastore_change& change, const char* vrf_name, vrf_request* request) {
    *request = {vrf_name, nullptr, nullptr};
    if ((change.event & DATASTORE_EVENT_CREATE_OR_SET) == 0) {
        return 0;
    }
    tuple_field fields[3] = {};
    uint32_t mask = 0;
    const platform_status status = change.value == nullptr
                                       ? platform_status{TUPLE_MALFORMED}
                                       : tuple_decode_mask(change.value, change.value_size, "%d%S%S", fields, 3, &mask);
    if (status != PLATFORM_OK) {
        log_location(ERR_DATASTORE_UNPACK, status, vrf_name);
        trace_error(vrf_trace_item_unpack, {vrf_name, status});
        return -1;
    }
    request->v4_acl = given_name(fields[1].text);
    request->v6_acl = given_name(fields[2].text);
    return 0;
}

/// Takes a reference to the VRF's node for an item, creating the node if necessary. During the initial scan every item
/// counts; afterwards only a new one does. Returns null when out of memory.
vrf_node* hold_vrf_node(item_kind item, const char* vrf_name, uint32_t event, bool* created) {
    vrf_node* node = find_vrf_node(vrf_name);
    *created = node == nullptr;
    if (node == nullptr) {
        debug_print("vrf:=%s, ssh server will be started", vrf_name);
        return create_vrf_node(vrf_name);
    }
    debug_print("vrf:=%s, refCnt:=%d, ssh server already running", vrf_name, node->reference_count);
    const bool is_held = (node->deletions_due & item) != 0;
    node->deletions_due &= ~item;
    if (!is_held && ((event & DATASTORE_EVENT_CREATE) != 0 || agent_handles.initial_scan_complete == 0)) {
        ++node->reference_count;
    }
    return node;
}

void release_reference(vrf_node* node) {
    --node->reference_count;
    debug_print("vrf:=%s, refCnt:=%d, ssh server will be stopped if refcnt is 0", node->name, node->reference_count);
}

int add_port_line(const char* vrf_name, size_t port, uint32_t* file_changed) {
    const line_entry& entry = server_config.parameters[port];
    return update_vrf_config_file(event_set_value, vrf_name, entry.keyword, entry.default_text, file_changed);
}

int remove_port_line(const char* vrf_name, size_t port, uint32_t* file_changed) {
    const line_entry& entry = server_config.parameters[port];
    return update_vrf_config_file(event_delete_value, vrf_name, entry.keyword, entry.default_text, file_changed);
}

bool has_own_port_line(const server_kind& kind) {
    return !kind.port_yields_to_setting || server_config.parameters[kind.port].current == nullptr;
}

/// Attaches the lists named in the request. A failure in one address family does not affect the other. Returns 0 or -1.
int attach_given_lists(const server_kind& kind, const vrf_request& request, vrf_node* node) {
    const int v4 = request.v4_acl != nullptr ? attach_acl(node, kind.v4) : 0;
    const int v6 = request.v6_acl != nullptr ? attach_acl(node, kind.v6) : 0;
    return v4 != 0 || v6 != 0 ? -1 : 0;
}

void store_list_name(vrf_node* node, const acl_slot& slot, const char* acl_name) {
    if (acl_name != nullptr) {
        copy_text(node->*slot.name, acl_name_size, acl_name);
    }
}

/// A list of the item that must be replaced, and whether its table has been flushed.
struct list_exchange {
    const acl_slot& slot;
    bool changed;
    bool flushed;
};

/// Flushes the tables of the changed lists and loads the new ones. A failure in one address family does not affect the
/// other.
void load_exchanged_lists(const server_kind& kind, vrf_node* node, std::span<list_exchange> exchanges) {
    for (list_exchange& each : exchanges) {
        each.flushed = each.changed && flush_acl_rules(kind.routine, node, each.slot) == 0;
    }
    for (const list_exchange& each : exchanges) {
        if (each.flushed && (node->*each.slot.name)[0] != '\0') {
            attach_acl(node, each.slot);
        } else if (each.flushed) {
            acl_rules_in_force(node, each.slot.type);
        }
    }
}

/// Reports the rules of lists that are no longer named but could not be removed.
void report_rules_left(vrf_node* node, std::span<const list_exchange> exchanges) {
    for (const list_exchange& each : exchanges) {
        if (each.changed && !each.flushed && (node->*each.slot.name)[0] == '\0') {
            acl_rules_failed(node, each.slot.type, "the rules of the former access list could not be removed");
        }
    }
}

/// Replaces the access lists of a server. The VRF is blocked while its tables are empty, and stays blocked if it has no
/// server. Without a namespace the names wait for it.
void exchange_lists(const server_kind& kind, const vrf_request& request) {
    vrf_node* node = find_vrf_node(request.vrf_name);
    if (node == nullptr) {
        return;
    }
    list_exchange exchanges[] = {{kind.v4, exchange_acl_name(node, kind.v4, request.v4_acl), false},
                                 {kind.v6, exchange_acl_name(node, kind.v6, request.v6_acl), false}};
    const bool changed = (exchanges[0].changed || exchanges[1].changed) && vrf_namespace_exists(node->name);
    if (changed && make_nft_table(kind.routine, node->name) == 0) {
        block_vrf(node->name);
        load_exchanged_lists(kind, node, exchanges);
        if (node->start_failed == 0 && node->blocked_until_end == 0) {
            unblock_vrf(node->name);
        }
    }
    if (changed) {
        report_rules_left(node, exchanges);
        settle_acls(node);
    }
    release_unused_acls();
}

/// The service's lines in the VRF's file.
int write_service_lines(const server_kind& kind, vrf_node* node, bool new_node, uint32_t* file_changed) {
    line_entry& subsystem = node->lines[VRF_NETCONF_SUBSYSTEM];
    if (kind.subsystem != nullptr) {
        subsystem.current = kind.subsystem;
    }
    if (prepare_vrf_file(node->name, kind.subsystem != nullptr ? 1 : 0, subsystem.keyword, kind.subsystem, file_changed,
                         new_node ? 1 : 0) != 0) {
        return -1;
    }
    return has_own_port_line(kind) ? add_port_line(node->name, kind.port, file_changed) : 0;
}

/// Creates the server's unit and starts it in an existing namespace. Returns 0 and the result of the restart, or -1 if
/// the restart was not attempted.
int start_unit(const server_kind& kind, vrf_node* node, int* result) {
    char namespace_name[namespace_name_size];
    vrf_namespace_name(node->name, namespace_name, sizeof namespace_name);
    if (!announce_namespace(namespace_name)) {
        return -1;
    }
    if (create_sshd_service_config_file(namespace_name) != 0) {
        debug_print("Failed to create systemd service and config file for vrf:=%s", node->name);
        trace_error(vrf_trace_unit_create, {node->name});
        return -1;
    }
    mark_vrf(kind.service, node->name);
    *result = restart_server_of(node);
    return 0;
}

/// How far the server of a new item has got.
enum class progress : uint8_t {
    ready,    ///< lists can be attached
    waiting,  ///< for the namespace, or for a server that could not be started
    failed
};

/// Prepares the file of a new item's node, starts its server and creates the tables for its lists. The first failure is
/// logged and stops this.
progress start_new_server(const server_kind& kind, vrf_node* node, bool new_node) {
    uint32_t file_changed = 0;
    if (write_service_lines(kind, node, new_node, &file_changed) != 0) {
        return progress::failed;
    }
    int result = 0;
    if (file_changed != 0 && vrf_namespace_exists(node->name) && start_unit(kind, node, &result) != 0) {
        return progress::failed;
    }
    if (result != 0 || !vrf_namespace_exists(node->name)) {
        return progress::waiting;
    }
    if (node->name[0] != '\0' && make_nft_table(kind.routine, node->name) != 0) {
        return progress::failed;
    }
    return progress::ready;
}

/// Some failures have been reported for the file or the unit they concern; none must go unreported.
void report_unprepared_server(const vrf_node& node) {
    constexpr size_t subject_size = sizeof "server " + vrf_name_size;
    char subject[subject_size];
    format_text(subject, sizeof subject, "server %s", node.name);
    enforcement_failed(subject, "it could not be set up completely; the journal says why");
}

/// Applies a new item to its node. Even if that fails, its lists are loaded or their ports stay closed: an earlier server
/// may still be running, and one that could not be started may be started later.
void start_service(const server_kind& kind, const vrf_request& request, vrf_node* node, bool new_node) {
    if (agent_handles.respawn_count >= respawn_after_failure) {
        debug_print("ssh_cfg_agent respawn count: %d", static_cast<int>(agent_handles.respawn_count));
        mark_vrf(kind.service, node->name);
    }
    store_list_name(node, kind.v4, request.v4_acl);
    store_list_name(node, kind.v6, request.v6_acl);
    progress reached = start_new_server(kind, node, new_node);
    if (reached == progress::failed) {
        report_unprepared_server(*node);
    }
    if (reached != progress::ready) {
        reload_acls(node);
    } else if (attach_given_lists(kind, request, node) != 0) {
        reached = progress::failed;
    }
    settle_acls(node);
    if (reached != progress::failed && kind.follows_default_vrf && is_default_vrf(node->name)) {
        publish_telemetry();
    }
}

platform_status create_item(const server_kind& kind, uint32_t event, const vrf_request& request) {
    bool new_node = false;
    vrf_node* node = hold_vrf_node(kind.item, request.vrf_name, event, &new_node);
    if (node == nullptr) {
        return 1;
    }
    if (kind.follows_default_vrf && is_default_vrf(request.vrf_name)) {
        default_vrf_configured = 1;
    }
    start_service(kind, request, node, new_node);
    return 0;
}

/// Removes the service's lines from the VRF's file. While the protocol item exists, the default VRF's port belongs to
/// that item. Returns 0 or -1.
int remove_service_lines(const server_kind& kind, vrf_node* node, uint32_t* file_changed) {
    if (kind.subsystem != nullptr) {
        line_entry& subsystem = node->lines[VRF_NETCONF_SUBSYSTEM];
        update_vrf_config_file(event_delete_value, node->name, subsystem.keyword, nullptr, file_changed);
        subsystem.current = nullptr;
    }
    const bool port_is_shared = kind.follows_default_vrf &&
                                server_config.parameters[SERVER_PROTOCOL].current != nullptr &&
                                is_default_vrf(node->name);
    if (port_is_shared || !has_own_port_line(kind)) {
        return 0;
    }
    return remove_port_line(node->name, kind.port, file_changed);
}

/// Stops the service in a VRF. Returns 0, or -1 with nothing changed if the VRF's file could not be edited.
int stop_service(const server_kind& kind, vrf_node* node) {
    uint32_t file_changed = 0;
    if (remove_service_lines(kind, node, &file_changed) != 0) {
        return -1;
    }
    // Without its lists a server that still runs must not be reached.
    block_until_changes_are_carried_out(node);
    release_reference(node);
    detach_acl(node, kind.v4);
    detach_acl(node, kind.v6);
    char vrf_name[vrf_name_size];
    copy_text(vrf_name, sizeof vrf_name, node->name);
    if (node->reference_count <= 0) {
        delete_vrf_config_file(vrf_name);
        ssh_process_restart(0, vrf_name);
        delete_vrf_node(node);
        unmark_vrf(kind.service, vrf_name);
    } else if (kind.restarts_remaining_server) {
        restart_server_of(node);
        unmark_vrf(kind.service, vrf_name);
    } else if (node->reference_count == 1 && file_changed != 0) {
        ssh_process_restart(1, vrf_name);
        unmark_vrf(kind.service, vrf_name);
    }
    return 0;
}

void delete_item(const server_kind& kind, const char* vrf_name) {
    vrf_node* node = find_vrf_node(vrf_name);
    if (node != nullptr && stop_service(kind, node) != 0) {
        node->deletions_due |= kind.item;
        return;
    }
    if (kind.follows_default_vrf && is_default_vrf(vrf_name)) {
        default_vrf_configured = 0;
        publish_telemetry();
    }
}

/// Applies a VRF item of either service.
platform_status apply_vrf_item(const server_kind& kind, const datastore_change& change,
                               const datastore_path_components* components) {
    debug_print(kind.event_text, static_cast<int>(change.event));
    const char* vrf_name = components != nullptr && components->count > vrf_name_component
                               ? components->component[vrf_name_component]
                               : nullptr;
    if (vrf_name == nullptr) {
        debug_print("vrf name should not be NULL");
        trace_error(vrf_trace_item_name_missing, {change.event});
        return 1;
    }
    vrf_request request;
    if (read_request(change, vrf_name, &request) != 0) {
        return 0;
    }
    kind.describe(find_vrf_node(vrf_name), request);
    trace_event(vrf_trace_item_applied, {vrf_name, kind.service, change.event});
    if ((change.event & DATASTORE_EVENT_CREATE_OR_SET) != 0) {
        if (change.previous == nullptr) {
            return create_item(kind, change.event, request);
        }
        exchange_lists(kind, request);
    } else if ((change.event & DATASTORE_EVENT_DELETE) != 0) {
        delete_item(kind, vrf_name);
    }
    return 0;
}

/// Creates the unit of the default VRF's server if it was removed with an earlier namespace. While no server was configured
/// there, it was not recreated when the namespace returned.
void restore_default_unit() {
    char unit[PATH_MAX];
    service_unit_path(default_vrf, unit, sizeof unit);
    if (file_exists(unit) == 1 || !vrf_namespace_exists(default_vrf)) {
        return;
    }
    char namespace_name[namespace_name_size];
    vrf_namespace_name(default_vrf, namespace_name, sizeof namespace_name);
    if (create_sshd_service_config_file(namespace_name) != 0) {
        debug_print("Failed to create systemd service and config file for vrf:=%s", default_vrf);
        trace_error(vrf_trace_unit_create, {default_vrf});
    }
}

/// The protocol item was created or changed: runs a server in the default VRF. Returns 0, -1 after a logged failure, or
/// 1 when out of memory.
int start_default_server(uint32_t event) {
    server_config.parameters[SERVER_PROTOCOL].current = "2";
    bool new_node = false;
    vrf_node* node = hold_vrf_node(ITEM_PROTOCOL, default_vrf, event, &new_node);
    if (node == nullptr) {
        return 1;
    }
    if (!new_node) {
        publish_telemetry();
    }
    // Without a namespace the tables wait for it, but the server's file is prepared nevertheless.
    if (vrf_namespace_exists(default_vrf) && make_nft_table("sshd_apply_ver_func", default_vrf) != 0) {
        enforcement_failed("server default", "its nftables tables could not be created");
        return -1;
    }
    restore_default_unit();
    mark_vrf(MPP_SERVICE_SSH, default_vrf);
    uint32_t file_changed = 0;
    if (prepare_vrf_file(default_vrf, 0, nullptr, nullptr, &file_changed, new_node ? 1 : 0) != 0 ||
        add_port_line(default_vrf, SERVER_PORT, &file_changed) != 0) {
        return -1;
    }
    publish_telemetry();
    return 0;
}

/// The protocol item was deleted. The port line stays while the VRF item "default" needs it. Returns 0 or -1. Walking
/// the VRFs' files afterwards removes a node without references.
int stop_default_server() {
    server_config.parameters[SERVER_PROTOCOL].current = nullptr;
    vrf_node* node = find_vrf_node(default_vrf);
    if (node != nullptr && default_vrf_configured != 0) {
        --node->reference_count;
    } else if (node != nullptr) {
        uint32_t file_changed = 0;
        if (remove_port_line(default_vrf, SERVER_PORT, &file_changed) != 0) {
            node->deletions_due |= ITEM_PROTOCOL;
            return -1;
        }
        --node->reference_count;
        if (node->reference_count < 2 && file_changed != 0) {
            unmark_vrf(MPP_SERVICE_SSH, default_vrf);
        }
    }
    publish_telemetry();
    return 0;
}

void write_protocol_line(uint32_t event) {
    const line_entry& protocol = server_config.parameters[SERVER_PROTOCOL];
    update_config_files_restart(event, protocol.keyword, protocol.current, protocol.allvrf);
}

}  // namespace

platform_status sshd_apply_vrf_func(const datastore_change* change, const datastore_path_components* components) {
    return apply_vrf_item(ssh_server, *change, components);
}

platform_status sshd_apply_conf_netconf_vrf(const datastore_change* change,
                                            const datastore_path_components* components) {
    return apply_vrf_item(netconf_server, *change, components);
}

platform_status sshd_apply_ver_func(const datastore_change* change, const datastore_path_components*) {
    debug_print("Event:=%d, Config:=ssh server v2", static_cast<int>(change->event));
    trace_event(vrf_trace_item_applied, {default_vrf, MPP_SERVICE_SSH, change->event});
    int result = 0;
    if ((change->event & DATASTORE_EVENT_CREATE_OR_SET) != 0) {
        result = start_default_server(change->event);
    } else if ((change->event & DATASTORE_EVENT_DELETE) != 0) {
        result = stop_default_server();
    }
    if (result == 0) {
        write_protocol_line(change->event);
    }
    return result > 0 ? 1 : 0;
}

void carry_out_due_deletions(vrf_node* node) {
    const uint32_t due = node->deletions_due;
    char vrf_name[vrf_name_size];
    copy_text(vrf_name, sizeof vrf_name, node->name);
    node->deletions_due = 0;
    if ((due & ITEM_SSH) != 0) {
        delete_item(ssh_server, vrf_name);
    }
    if ((due & ITEM_NETCONF) != 0) {
        delete_item(netconf_server, vrf_name);
    }
    if ((due & ITEM_PROTOCOL) != 0) {
        if (stop_default_server() == 0) {
            write_protocol_line(DATASTORE_EVENT_DELETE);
        }
    }
}
