#include "vrf/node_registry.h"

#include <cerrno>
#include <new>

#include "config_files/parameter_table.h"
#include "config_files/vrf_node.h"
#include "core/debug.h"
#include "core/text.h"
#include "vrf/acl_state.h"
#include "vrf/trace_points.h"

vrf_node* create_vrf_node(const char* vrf_name) {
    auto* node = new (std::nothrow) vrf_node{};
    if (node == nullptr) {
        debug_print("Error:=%s(0x%x), vrfname:=%s, memory allocation failed", platform_status_text(ENOMEM), ENOMEM,
                    vrf_name);
        trace_error(vrf_trace_allocation, {vrf_name});
        return nullptr;
    }
    copy_text(node->name, sizeof node->name, vrf_name);
    node->reference_count = 1;
    node->lines[VRF_START_MARKER].keyword = "startconfig";
    node->lines[VRF_NETCONF_SUBSYSTEM] = {"", nullptr, "Subsystem netconf", 0};
    node->lines[VRF_END_MARKER].keyword = "endconfig";
    node->next = server_config.nodes;
    server_config.nodes = node;
    return node;
}

void delete_vrf_node(vrf_node* node) {
    if (node == nullptr) {
        return;
    }
    debug_print("%s, vrfname:=%s", __func__, node->name);
    for (vrf_node** link = &server_config.nodes; *link != nullptr; link = &(*link)->next) {
        if (*link == node) {
            *link = node->next;
            forget_acl_rules(node);
            delete node;
            return;
        }
    }
}
