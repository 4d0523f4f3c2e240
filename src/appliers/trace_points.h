/// Trace points of appliers/.
#ifndef APPLIERS_TRACE_POINTS_H
#define APPLIERS_TRACE_POINTS_H

#include <cstdint>

#include "core/trace.h"

enum appliers_trace_point : uint32_t {
    appliers_trace_logging = trace_room_appliers,
    appliers_trace_server_dscp,
    appliers_trace_timeout,
    appliers_trace_max_auth_limit,
    appliers_trace_rate_limit,
    appliers_trace_session_limit,
    appliers_trace_port_forwarding,
    appliers_trace_server_window_scale,
    appliers_trace_server_rekey_time,
    appliers_trace_server_rekey_volume,
    appliers_trace_port_forwarding_value,
    appliers_trace_port_forwarding_event,
    appliers_trace_vrf_name,
    appliers_trace_kex_refused,
    appliers_trace_cipher_refused,
    appliers_trace_host_key_refused,
    appliers_trace_mac_refused,
    appliers_trace_unpack,
    appliers_trace_fips_question,
    appliers_trace_server_kex,
    appliers_trace_server_cipher,
    appliers_trace_server_legacy_cipher,
    appliers_trace_server_mac,
    appliers_trace_host_key,
    appliers_trace_client_kex,
    appliers_trace_client_cipher,
    appliers_trace_client_legacy_cipher,
    appliers_trace_client_mac,
    appliers_trace_cipher_write,
    appliers_trace_memory,
    appliers_trace_client_version,
    appliers_trace_client_dscp,
    appliers_trace_client_known_hosts,
    appliers_trace_client_host_key_checking,
    appliers_trace_client_window_scale,
    appliers_trace_client_rekey_time,
    appliers_trace_client_rekey_volume,
    appliers_trace_trustpoint_host,
    appliers_trace_trustpoint_user,
    appliers_trace_trustpoint_event,
    appliers_trace_trustpoint_refused,
    appliers_trace_trustpoint_cut,
    appliers_trace_certificate_username,
    appliers_trace_item_name,
    appliers_trace_user_key,
    appliers_trace_user_key_refused,
    appliers_trace_user_list,
    // Codes are kept for good: append.
};

#endif
