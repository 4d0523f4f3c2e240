#include "appliers/server_settings.h"

#include "appliers/setting_row.h"
#include "appliers/trace_points.h"
#include "config_files/parameter_table.h"
#include "core/debug.h"
#include "core/log.h"
#include "platform/debug.h"

uint32_t server_logging_configured = 0;

namespace {

constexpr setting_row logging_row = {
    .trace_point = appliers_trace_logging,
    .entry = &server_config.parameters[SERVER_LOG_LEVEL],
    .event_text = "Event:=%d, Config:=ssh server logging",
    .event = WRITE_AS_IT_CAME,
    .write = write_server_setting,
};

bool server_debug_level_is_on() {
    return debug_flag_is_on(debug_server_l1) != 0 || debug_flag_is_on(debug_server_l2) != 0 ||
           debug_flag_is_on(debug_server_l3) != 0;
}

/// Reports to the operator why the item is refused.
platform_status refuse_port_forwarding(const char* text, trace_error_point point, uint32_t number) {
    log_error(text);
    trace_error(point, {number});
    return 1;
}

}  // namespace

platform_status sshd_apply_logging(const datastore_change* change, const datastore_path_components*) {
    debug_print(logging_row.event_text, static_cast<int>(change->event));
    const bool configured = (change->event & DATASTORE_EVENT_CREATE_OR_SET) != 0;
    if (!configured && (change->event & DATASTORE_EVENT_DELETE) == 0) {
        return PLATFORM_OK;
    }
    server_logging_configured = configured ? 1 : 0;
    if (server_debug_level_is_on()) {
        // While a debug level is on, it determines LogLevel; switching it off consults the flag above.
        trace_event(logging_row.trace_point, {change->event, logging_row.entry->current});
        return PLATFORM_OK;
    }
    put_setting(logging_row, change->event, configured ? "VERBOSE" : nullptr);
    return PLATFORM_OK;
}

platform_status check_port_forwarding(const datastore_change& change) {
    if ((change.event & DATASTORE_EVENT_CREATE_OR_SET) != 0) {
        const uint32_t value = change.value != nullptr ? *static_cast<const uint32_t*>(change.value) : UINT32_MAX;
        if (value > 1) {
            return refuse_port_forwarding("invalid create/set value for port forwarding",
                                          appliers_trace_port_forwarding_value, value);
        }
    } else if ((change.event & DATASTORE_EVENT_DELETE) == 0) {
        return refuse_port_forwarding("invalid event type received for port forwarding",
                                      appliers_trace_port_forwarding_event, change.event);
    }
    return PLATFORM_OK;
}

const char* forwarding_or_default(const setting_row& row, const uint32_t* value) {
    if (value == nullptr) {
        return row.entry->default_text;
    }
    return *value == 1 ? "local" : "no";
}
