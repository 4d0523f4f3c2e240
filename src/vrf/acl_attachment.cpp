#include "vrf/acl_attachment.h"

#include <cstring>

#include "core/debug.h"
#include "core/log.h"
#include "core/text.h"
#include "vrf/acl_state.h"
#include "vrf/trace_points.h"
#include "vrf/vrf_namespace.h"

namespace {

uint32_t bit_of(const acl_slot& slot) {
    return 1U << slot.type;
}

}  // namespace

int make_nft_table(const char* tag, const char* vrf_name) {
    if (agent_upcalls.create_nft_table == nullptr || agent_upcalls.create_nft_table(vrf_name) == 0) {
        return 0;
    }
    debug_print("%s: Failed to create nft table", tag);
    log_details("Failed to create nft table", "vrf: ", vrf_name);
    trace_error(vrf_trace_nft_table, {vrf_name});
    return -1;
}

int flush_acl_rules(const char* tag, vrf_node* node, const acl_slot& slot) {
    if (agent_upcalls.ssh_flush_nft_table == nullptr || agent_upcalls.ssh_flush_nft_table(node->name, slot.type) == 0) {
        return 0;
    }
    debug_print("%s: Failed to flush nft table", tag);
    log_details("Failed to flush nft table", "vrf: ", node->name);
    trace_error(vrf_trace_nft_flush, {node->name, slot.type});
    return -1;
}

int attach_acl(vrf_node* node, const acl_slot& slot) {
    const auto attach = agent_upcalls.*slot.attach;
    if (attach == nullptr || attach(node, slot.type) == 0) {
        acl_rules_in_force(node, slot.type);
        return 0;
    }
    if (slot.attach_failed_debug != nullptr) {
        debug_print(slot.attach_failed_debug, node->*slot.name);
    }
    log_details(slot.attach_failed_log, slot.log_prefix, node->name);
    trace_error(vrf_trace_acl, {node->name, node->*slot.name, slot.type});
    block_without_acl(node, slot.type);
    return -1;
}

void detach_acl(vrf_node* node, const acl_slot& slot) {
    char* acl_name = node->*slot.name;
    if (acl_name[0] == '\0') {
        return;
    }
    node->failed_acls &= ~bit_of(slot);
    const auto detach = agent_upcalls.*slot.detach;
    if (detach != nullptr) {
        detach(node, slot.type);
    }
    acl_name[0] = '\0';
    acl_detached(node, slot.type);
}

bool exchange_acl_name(vrf_node* node, const acl_slot& slot, const char* acl_name) {
    char* stored = node->*slot.name;
    const char* wanted = acl_name != nullptr ? acl_name : "";
    const bool in_force = (node->failed_acls & bit_of(slot)) == 0 && !acl_is_missing(*node, slot.type);
    if (in_force && std::strncmp(stored, wanted, acl_name_size - 1) == 0) {
        return false;
    }
    copy_text(stored, acl_name_size, wanted);
    node->attached_acls &= ~bit_of(slot);
    node->failed_acls &= ~bit_of(slot);
    return true;
}

void reload_acls(vrf_node* node) {
    if (agent_upcalls.reload_acls != nullptr && any_acl_failed(*node) && vrf_namespace_exists(node->name)) {
        agent_upcalls.reload_acls(node);
    }
}

void release_unused_acls() {
    if (agent_upcalls.release_unused_acls != nullptr) {
        agent_upcalls.release_unused_acls();
    }
}
