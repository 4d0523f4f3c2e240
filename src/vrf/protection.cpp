#include "vrf/protection.h"

#include "config_files/vrf_node.h"
#include "core/debug.h"
#include "platform/mpp.h"
#include "vrf/trace_points.h"

namespace {

void trace_failure(platform_status status, trace_error_point point, const char* vrf_name) {
    if (status != PLATFORM_OK) {
        trace_error(point, {vrf_name, status});
    }
}

}  // namespace

void mark_vrf(uint32_t service, const char* vrf_name) {
    trace_failure(mpp_vrf_set(service, vrf_name), vrf_trace_mark, vrf_name);
}

void unmark_vrf(uint32_t service, const char* vrf_name) {
    trace_failure(mpp_vrf_unset(service, vrf_name), vrf_trace_unmark, vrf_name);
}

void block_vrf(const char* vrf_name) {
    vrf_node* node = find_vrf_node(vrf_name);
    if (node != nullptr && node->nft_initialised == 0) {
        trace_failure(mpp_vrf_nft_init(vrf_name), vrf_trace_nft_init, vrf_name);
        node->nft_initialised = 1;
    }
    trace_failure(mpp_vrf_block(vrf_name), vrf_trace_block, vrf_name);
}

void unblock_vrf(const char* vrf_name) {
    trace_failure(mpp_vrf_unblock(vrf_name), vrf_trace_unblock, vrf_name);
}

bool announce_namespace(const char* namespace_name) {
    const platform_status status = mpp_namespace_created(namespace_name);
    if (status != PLATFORM_OK) {
        debug_print("MPP nns create API failed, %s", platform_status_text(status));
        trace_error(vrf_trace_namespace_announce, {namespace_name, status});
    }
    return status == PLATFORM_OK;
}
