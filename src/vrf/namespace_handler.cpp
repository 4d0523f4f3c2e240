#include "vrf/namespace_handler.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "config_files/parameter_table.h"
#include "config_files/vrf_node.h"
#include "core/command_output.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/text.h"
#include "platform/mpp.h"
#include "platform/namespace_message.h"
#include "vrf/acl_attachment.h"
#include "vrf/acl_state.h"
#include "vrf/protection.h"
#include "vrf/server_lifecycle.h"
#include "vrf/service_unit.h"
#include "vrf/trace_points.h"
#include "vrf/vrf_namespace.h"

namespace {

constexpr int wait_attempts = 10;
constexpr int wait_seconds = 2;
constexpr size_t listing_line_size = 512;
constexpr size_t command_size = 512;

// The NETCONF IPv6 list is attached by the IPv4 routine here, unlike when its item is applied. The handling of a
// returning namespace has always done this, and it determines the rules in its tables.
constexpr acl_slot lists_in_order[] = {
    {&vrf_node::ssh_v4_acl, acl_ssh_v4, &upcalls::ssh_configure_v4acl, nullptr, nullptr,
     "Failed to configure ssh v4 acl", "vrf: "},
    {&vrf_node::netconf_v4_acl, acl_netconf_v4, &upcalls::ssh_configure_v4acl, nullptr, nullptr,
     "Failed to configure netconf v4 acl", "vrf: "},
    {&vrf_node::ssh_v6_acl, acl_ssh_v6, &upcalls::ssh_configure_v6acl, nullptr, nullptr,
     "Failed to configure ssh v6 acl", "vrf: "},
    {&vrf_node::netconf_v6_acl, acl_netconf_v6, &upcalls::ssh_configure_v4acl, nullptr, nullptr,
     "Failed to configure netconf v6 acl", "vrf: "},
};

/// The node whose namespace has this name, or null.
vrf_node* node_of_namespace(const char* namespace_name) {
    if (!begins_with(namespace_name, vrf_namespace_prefix)) {
        return nullptr;
    }
    for (vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        if (std::strcmp(namespace_name + std::strlen(vrf_namespace_prefix), node->name) == 0) {
            return node;
        }
    }
    return nullptr;
}

/// Whether `ip` lists the namespace.
bool namespace_is_listed(const char* namespace_name) {
    char command[command_size];
    format_text(command, sizeof command, "ip netns list | grep %s", namespace_name);
    FILE* listing = read_shell_command(command, listing_limit);
    if (listing == nullptr) {
        return false;
    }
    bool found = false;
    char line[listing_line_size];
    while (!found && std::fgets(line, sizeof line, listing) != nullptr) {
        found = begins_with(line, namespace_name);
    }
    std::fclose(listing);
    return found;
}

/// Waits until the namespace exists and is announced, up to the last attempt: the server is started in any case, and
/// systemd then reports what is wrong.
void wait_for_namespace(const vrf_node* node, const char* namespace_name) {
    for (int attempt = 1; attempt <= wait_attempts; ++attempt) {
        if (namespace_is_listed(namespace_name) && announce_namespace(namespace_name)) {
            return;
        }
        trace_error(vrf_trace_namespace_missing, {namespace_name, attempt});
        debug_print("nns not created for vrf:=%s, sleep for %d seconds and recheck. Attempt:=%d", node->name,
                    wait_seconds, attempt);
        sleep(wait_seconds);
    }
    debug_print("nns not created for vrf: %s ,even after %d retries with sleep interval of %d seconds", node->name,
                wait_attempts, wait_seconds);
    log_details("nns not created for vrf:", node->name, "even after multiple retries");
}

/// Attaches every list named in the node. Returns 0, or -1 at the first failure.
int attach_all_lists(vrf_node* node) {
    for (const acl_slot& slot : lists_in_order) {
        if ((node->*slot.name)[0] != '\0' && attach_acl(node, slot) != 0) {
            return -1;
        }
    }
    return 0;
}

void start_in_namespace(vrf_node* node, const char* namespace_name) {
    if (create_sshd_service_config_file(namespace_name) != 0) {
        debug_print("Failed to create systemd service and config file for vrf:=%s", node->name);
        trace_error(vrf_trace_unit_create, {node->name});
        settle_acls(node);
        return;
    }
    restart_server_of(node);
    if (make_nft_table("ssh_proxy_nns_handler", node->name) != 0 || attach_all_lists(node) != 0) {
        reload_acls(node);
    }
    settle_acls(node);
    if (node->failed_acls != 0) {
        return;
    }
    mark_vrf(MPP_SERVICE_SSH, node->name);
    if (node->lines[VRF_NETCONF_SUBSYSTEM].current != nullptr) {
        mark_vrf(MPP_SERVICE_NETCONF, node->name);
    }
}

void namespace_created(const char* namespace_name) {
    vrf_node* node = node_of_namespace(namespace_name);
    if (node == nullptr) {
        return;
    }
    if (node->server_started == 1) {
        debug_print(" vrf creation already informed");
        return;
    }
    wait_for_namespace(node, namespace_name);
    start_in_namespace(node, namespace_name);
}

void namespace_deleted(const char* namespace_name) {
    const platform_status status = mpp_namespace_deleted(namespace_name);
    if (status != PLATFORM_OK) {
        debug_print("MPP nns delete API failed, %s", platform_status_text(status));
        trace_error(vrf_trace_namespace_withdraw, {namespace_name, status});
    }
    vrf_node* node = node_of_namespace(namespace_name);
    if (node != nullptr) {
        ssh_process_restart(0, node->name);
        node->server_started = 0;
        forget_acl_rules(node);
    }
    remove_sshd_service_config_file(namespace_name);
}

/// Copies the message's body and terminates its name. Returns false if the body is malformed.
bool read_message(const event_message* message, namespace_message* body) {
    size_t size = 0;
    const void* bytes = event_message_body(message, &size);
    if (bytes == nullptr || size <= offsetof(namespace_message, name)) {
        return false;
    }
    *body = {};
    std::memcpy(body, bytes, std::min(size, sizeof *body));
    body->name[sizeof body->name - 1] = '\0';
    return true;
}

void handle(const namespace_message& body) {
    debug_print("Message:=%d, Name:=%s, event received", static_cast<int>(body.code), body.name);
    trace_event(vrf_trace_namespace_message, {body.name, body.code});
    if (body.code == NAMESPACE_DELETED) {
        namespace_deleted(body.name);
    } else if (body.code == NAMESPACE_CREATED) {
        namespace_created(body.name);
    }
}

}  // namespace

void ssh_proxy_nns_handler(event_message* message, void*) {
    debug_print("%s, Entered", __func__);
    namespace_message body;
    if (read_message(message, &body)) {
        handle(body);
    } else {
        trace_error(vrf_trace_namespace_malformed);
    }
    // The platform waits for a reply, whatever happened to the namespace.
    const unsigned char reply[NAMESPACE_REPLY_SIZE] = {};
    event_message_reply(message, reply, sizeof reply);
}
