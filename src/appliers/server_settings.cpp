#include "appliers/server_settings.h"

#include "appliers/setting_row.h"
#include "appliers/trace_points.h"
#include "config_files/parameter_table.h"
#include "core/debug.h"
#include "core/log.h"
#include "platform/debug.h"

uint32_t server_logging_configured = 0;

namespace {

constexpr uint32_t create_or_set = DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET;

// A setting's text must outlive its handler: the table points at it. Both rekey items share one.
char timeout_text[setting_text_size];
char max_auth_limit_text[setting_text_size];
char rate_limit_text[setting_text_size];
char session_limit_text[setting_text_size];
char window_scale_text[setting_text_size];
char rekey_text[setting_text_size];

void announce_dscp(const char* text) {
    debug_print("Setting DSCP for ssh server: %s", text);
}

void announce_timeout(const char* text) {
    debug_print("(%s), timeout:=%s", "sshd_apply_timeout", text);
}

void announce_retries(const char* text) {
    debug_print("(%s), Retries:=%s", "sshd_apply_max_auth_limit", text);
}

const char* forwarding_or_default(const setting_row& row, const uint32_t* value) {
    if (value == nullptr) {
        return row.entry->default_text;
    }
    return *value == 1 ? "local" : "no";
}

const setting_row logging_row = {
    .entry = &server.parameters[SERVER_LOG_LEVEL],
    .event_text = "Event:=%d, Config:=ssh server logging",
    .trace_point = appliers_trace_logging,
    .buffer = nullptr,
    .make_text = nullptr,
    .announce = nullptr,
    .event = WRITE_AS_IT_CAME,
    .is_telemetry = false,
    .written_text = nullptr,
    .write = write_server_setting,
};

const setting_row dscp_row = {
    .entry = &server.parameters[SERVER_IP_QOS],
    .event_text = "Event:=%d, Config:=ssh server dscp",
    .trace_point = appliers_trace_server_dscp,
    .buffer = server_dscp,
    .make_text = code_point_or_default,
    .announce = announce_dscp,
    .event = WRITE_AS_SET,
    .is_telemetry = false,
    .written_text = ip_qos_text,
    .write = write_server_setting,
};

const setting_row timeout_row = {
    .entry = &server.parameters[SERVER_LOGIN_GRACE_TIME],
    .event_text = "Event:=%d, Config:=ssh timeout",
    .trace_point = appliers_trace_timeout,
    .buffer = timeout_text,
    .make_text = number_or_default,
    .announce = announce_timeout,
    .event = WRITE_AS_SET,
    .is_telemetry = true,
    .written_text = nullptr,
    .write = write_server_setting,
};

const setting_row max_auth_limit_row = {
    .entry = &server.parameters[SERVER_MAX_AUTH_TRIES],
    .event_text = "Event:=%d, Config:=ssh server max auth limit",
    .trace_point = appliers_trace_max_auth_limit,
    .buffer = max_auth_limit_text,
    .make_text = number_or_default,
    .announce = announce_retries,
    .event = WRITE_AS_SET,
    .is_telemetry = false,
    .written_text = nullptr,
    .write = write_server_setting,
};

const setting_row rate_limit_row = {
    .entry = &server.parameters[SERVER_RATE_LIMIT],
    .event_text = "Event:=%d, Config:=ssh server rate limit",
    .trace_point = appliers_trace_rate_limit,
    .buffer = rate_limit_text,
    .make_text = number_or_default,
    .announce = nullptr,
    .event = WRITE_AS_IT_CAME,
    .is_telemetry = true,
    .written_text = nullptr,
    .write = write_server_setting,
};

const setting_row session_limit_row = {
    .entry = &server.parameters[SERVER_SESSION_LIMIT],
    .event_text = "Event:=%d, Config:=ssh server sessionlimit",
    .trace_point = appliers_trace_session_limit,
    .buffer = session_limit_text,
    .make_text = number_or_default,
    .announce = nullptr,
    .event = WRITE_AS_IT_CAME,
    .is_telemetry = true,
    .written_text = nullptr,
    .write = write_server_setting,
};

const setting_row port_forwarding_row = {
    .entry = &server.parameters[SERVER_ALLOW_TCP_FORWARDING],
    .event_text = "Event:=%d, Config:=ssh server port forwarding",
    .trace_point = appliers_trace_port_forwarding,
    .buffer = nullptr,
    .make_text = forwarding_or_default,
    .announce = nullptr,
    .event = WRITE_AS_SET,
    .is_telemetry = false,
    .written_text = nullptr,
    .write = write_server_setting,
};

// A running server cannot change its window scale: the value waits in the table for the next file made from it.
const setting_row window_scale_row = {
    .entry = &server.parameters[SERVER_WINDOW_SCALE],
    .event_text = "Event:=%d, Config:=ssh server windowscale",
    .trace_point = appliers_trace_server_window_scale,
    .buffer = window_scale_text,
    .make_text = number_or_nothing,
    .announce = nullptr,
    .event = WRITE_AS_SET,
    .is_telemetry = false,
    .written_text = nullptr,
    .write = nullptr,
};

const setting_row rekey_time_row = {
    .entry = &server.parameters[SERVER_REKEY_LIMIT],
    .event_text = "Event:=%d, Config:=ssh server rekey-time",
    .trace_point = appliers_trace_server_rekey_time,
    .buffer = rekey_text,
    .make_text = rekey_with_time,
    .announce = nullptr,
    .event = WRITE_AS_SET_ONCE_HELD,
    .is_telemetry = false,
    .written_text = nullptr,
    .write = write_server_setting,
};

const setting_row rekey_volume_row = {
    .entry = &server.parameters[SERVER_REKEY_LIMIT],
    .event_text = "Event:=%d, Config:=ssh server rekey-volume",
    .trace_point = appliers_trace_server_rekey_volume,
    .buffer = rekey_text,
    .make_text = rekey_with_volume,
    .announce = nullptr,
    .event = WRITE_AS_SET_ONCE_HELD,
    .is_telemetry = false,
    .written_text = nullptr,
    .write = write_server_setting,
};

bool server_debug_level_is_on() {
    return debug_flag_is_on(debug_server_l1) != 0 || debug_flag_is_on(debug_server_l2) != 0 ||
           debug_flag_is_on(debug_server_l3) != 0;
}

/// Tells the operator why the item is refused.
platform_status refuse_port_forwarding(const char* text, trace_error_point point, uint32_t number) {
    log_error(text);
    trace_error(point, {number});
    return 1;
}

}  // namespace

platform_status sshd_apply_logging(const datastore_change* change, const datastore_path_components*) {
    debug_print(logging_row.event_text, static_cast<int>(change->event));
    const bool configured = (change->event & create_or_set) != 0;
    if (!configured && (change->event & DATASTORE_EVENT_DELETE) == 0) {
        return PLATFORM_OK;
    }
    server_logging_configured = configured ? 1 : 0;
    if (server_debug_level_is_on()) {
        // LogLevel is the debug level's as long as it is on; switching it off looks at the flag above.
        trace_event(logging_row.trace_point, {change->event, logging_row.entry->current});
        return PLATFORM_OK;
    }
    put_setting(logging_row, change->event, configured ? "VERBOSE" : nullptr);
    return PLATFORM_OK;
}

platform_status sshd_apply_dscp(const datastore_change* change, const datastore_path_components*) {
    return apply_setting(dscp_row, *change);
}

platform_status sshd_apply_timeout(const datastore_change* change, const datastore_path_components*) {
    return apply_setting(timeout_row, *change);
}

platform_status sshd_apply_max_auth_limit(const datastore_change* change, const datastore_path_components*) {
    return apply_setting(max_auth_limit_row, *change);
}

platform_status sshd_apply_rate_limit(const datastore_change* change, const datastore_path_components*) {
    return apply_setting(rate_limit_row, *change);
}

platform_status sshd_apply_session_limit(const datastore_change* change, const datastore_path_components*) {
    return apply_setting(session_limit_row, *change);
}

platform_status sshd_apply_port_forwarding(const datastore_change* change, const datastore_path_components*) {
    if ((change->event & create_or_set) != 0) {
        const uint32_t value = change->value != nullptr ? *static_cast<const uint32_t*>(change->value) : UINT32_MAX;
        if (value > 1) {
            debug_print(port_forwarding_row.event_text, static_cast<int>(change->event));
            return refuse_port_forwarding("invalid create/set value for port forwarding",
                                          appliers_trace_port_forwarding_value, value);
        }
    } else if ((change->event & DATASTORE_EVENT_DELETE) == 0) {
        debug_print(port_forwarding_row.event_text, static_cast<int>(change->event));
        return refuse_port_forwarding("invalid event type received for port forwarding",
                                      appliers_trace_port_forwarding_event, change->event);
    }
    return apply_setting(port_forwarding_row, *change);
}

platform_status sshd_apply_tcp_window_scale(const datastore_change* change, const datastore_path_components*) {
    return apply_setting(window_scale_row, *change);
}

platform_status sshd_apply_rekey_time(const datastore_change* change, const datastore_path_components*) {
    return apply_setting(rekey_time_row, *change);
}

platform_status sshd_apply_rekey_volume(const datastore_change* change, const datastore_path_components*) {
    return apply_setting(rekey_volume_row, *change);
}
