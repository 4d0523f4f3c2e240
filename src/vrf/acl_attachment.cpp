#include "vrf/acl_attachment.h"

#include "core/debug.h"
#include "core/log.h"
#include "vrf/trace_points.h"

int make_nft_table(const char* tag, const char* vrf_name) {
    if (upcall.create_nft_table == nullptr || upcall.create_nft_table(vrf_name) == 0) {
        return 0;
    }
    debug_print("%s: Failed to create nft table", tag);
    log_details("Failed to create nft table", "vrf: ", vrf_name);
    trace_error(vrf_trace_nft_table, {vrf_name});
    return -1;
}

int flush_acl_rules(const char* tag, const char* vrf_name, const acl_slot& slot) {
    if (upcall.ssh_flush_nft_table == nullptr || upcall.ssh_flush_nft_table(vrf_name, slot.type) == 0) {
        return 0;
    }
    debug_print("%s: Failed to flush nft table", tag);
    log_details("Failed to flush nft table", "vrf: ", vrf_name);
    trace_error(vrf_trace_nft_flush, {vrf_name, slot.type});
    return -1;
}

int attach_acl(vrf_node* node, const acl_slot& slot) {
    const auto attach = upcall.*slot.attach;
    if (attach == nullptr || attach(node, slot.type) == 0) {
        return 0;
    }
    if (slot.attach_failed_debug != nullptr) {
        debug_print(slot.attach_failed_debug, node->*slot.name);
    }
    log_details(slot.attach_failed_log, slot.log_prefix, node->name);
    trace_error(vrf_trace_acl, {node->name, node->*slot.name, slot.type});
    return -1;
}

void detach_acl(vrf_node* node, const acl_slot& slot) {
    char* acl_name = node->*slot.name;
    if (acl_name[0] == '\0') {
        return;
    }
    const auto detach = upcall.*slot.detach;
    if (detach != nullptr) {
        detach(node, slot.type);
    }
    acl_name[0] = '\0';
}
