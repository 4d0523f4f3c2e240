/// Trace points: VRFs, their units and servers.
#ifndef VRF_TRACE_POINTS_H
#define VRF_TRACE_POINTS_H

#include "core/trace.h"

// clang-format off
#define VRF_TRACE_POINTS(ERROR, EVENT)                                                                      \
    ERROR(0x300, vrf, unit_name_missing, "unit files requested without a VRF name")                         \
    ERROR(0x301, vrf, unit_name_unprefixed, "VRF name without the prefix vrf-", "name")                     \
    ERROR(0x302, vrf, vrf_id, "number of the VRF not found", "vrf", "status")                               \
    ERROR(0x303, vrf, unit_open, "unit file not opened", "file", "mode", "status")                          \
    ERROR(0x304, vrf, unit_write, "unit file not written", "file", "mode", "status")                        \
    ERROR(0x305, vrf, environment_open, "environment file not opened", "file", "mode", "status")            \
    ERROR(0x306, vrf, environment_write, "environment file not written", "file", "mode", "status")          \
    ERROR(0x307, vrf, daemon_reload, "systemd did not reload its units", "vrf", "status")                   \
    ERROR(0x308, vrf, unit_remove, "unit or environment file not removed", "file", "status")                \
    ERROR(0x309, vrf, restart_name_missing, "server restart requested without a VRF name")                  \
    ERROR(0x30a, vrf, unit_missing, "server not restarted: it has no unit", "vrf")                          \
    ERROR(0x30b, vrf, nft_init, "nftables state of the VRF not initialised", "vrf", "status")               \
    ERROR(0x30c, vrf, block, "ports of the VRF not blocked", "vrf", "status")                               \
    ERROR(0x30d, vrf, unblock, "ports of the VRF not unblocked", "vrf", "status")                           \
    ERROR(0x30e, vrf, start, "server not started", "vrf", "status")                                         \
    ERROR(0x30f, vrf, stop, "server not stopped", "vrf", "status")                                          \
    EVENT(0x310, vrf, restarted, "server restarted", "vrf")                                                 \
    EVENT(0x311, vrf, stopped, "server stopped", "vrf")                                                     \
    ERROR(0x312, vrf, probe, "state of the server unknown", "vrf", "status")                                \
    ERROR(0x313, vrf, copy, "server file of the VRF not replaced", "vrf", "status")                         \
    ERROR(0x314, vrf, item_name_missing, "VRF item without a name", "event")                                \
    ERROR(0x315, vrf, item_unpack, "value of the VRF item malformed", "vrf", "status")                      \
    EVENT(0x316, vrf, item_applied, "VRF item applied", "vrf", "service", "event")                          \
    ERROR(0x317, vrf, allocation, "out of memory for the VRF", "vrf")                                       \
    ERROR(0x318, vrf, nft_table, "nftables table not created", "vrf")                                       \
    ERROR(0x319, vrf, nft_flush, "access rules not flushed", "vrf", "kind")                                 \
    ERROR(0x31a, vrf, acl, "access list not applied", "vrf", "list", "kind")                                \
    ERROR(0x31b, vrf, mark, "VRF not marked for the service", "vrf", "status")                              \
    ERROR(0x31c, vrf, unmark, "VRF still marked for the service", "vrf", "status")                          \
    ERROR(0x31d, vrf, namespace_announce, "namespace not announced to protection", "namespace", "status")   \
    ERROR(0x31e, vrf, namespace_withdraw, "namespace not withdrawn from protection", "namespace", "status") \
    ERROR(0x31f, vrf, namespace_missing, "namespace did not appear in time", "namespace", "attempts")       \
    EVENT(0x320, vrf, namespace_message, "namespace created or deleted", "namespace", "code")               \
    ERROR(0x321, vrf, namespace_malformed, "namespace message malformed")                                   \
    ERROR(0x322, vrf, unit_create, "unit files not created", "vrf")                                         \
    ERROR(0x323, vrf, service_block, "service without its access list not blocked", "vrf", "kind", "status") \
    ERROR(0x324, vrf, service_unblock, "service with its access list not unblocked", "vrf", "kind", "status")
// clang-format on

VRF_TRACE_POINTS(DEFINE_TRACE_ERROR, DEFINE_TRACE_EVENT)

#endif
