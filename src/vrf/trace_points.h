/// Trace points of vrf/.
#ifndef VRF_TRACE_POINTS_H
#define VRF_TRACE_POINTS_H

#include <cstdint>

#include "core/trace.h"

enum vrf_trace_point : uint32_t {
    vrf_trace_unit_name_missing = trace_room_vrf,
    vrf_trace_unit_name_unprefixed,
    vrf_trace_vrf_id,
    vrf_trace_unit_open,
    vrf_trace_unit_write,
    vrf_trace_environment_open,
    vrf_trace_environment_write,
    vrf_trace_daemon_reload,
    vrf_trace_unit_remove,
    vrf_trace_restart_name_missing,
    vrf_trace_unit_missing,
    vrf_trace_nft_init,
    vrf_trace_block,
    vrf_trace_unblock,
    vrf_trace_start,
    vrf_trace_stop,
    vrf_trace_restarted,
    vrf_trace_stopped,
    vrf_trace_probe,
    vrf_trace_copy,
    vrf_trace_item_name_missing,
    vrf_trace_item_unpack,
    vrf_trace_item_applied,
    vrf_trace_allocation,
    vrf_trace_nft_table,
    vrf_trace_nft_flush,
    vrf_trace_acl,
    vrf_trace_mark,
    vrf_trace_unmark,
    vrf_trace_namespace_announce,
    vrf_trace_namespace_withdraw,
    vrf_trace_namespace_missing,
    vrf_trace_namespace_message,
    vrf_trace_namespace_malformed,
    vrf_trace_unit_create,
};

#endif
