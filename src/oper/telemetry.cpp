#include "oper/telemetry.h"

#include "core/agent_state.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/paths.h"
#include "ocsystem_ssh_telemetry_edm.h"
#include "oper/providers.h"
#include "oper/record_schemas.h"
#include "oper/trace_points.h"
#include "platform/telemetry_producer.h"

namespace {

constexpr char producer_name[] = "OCSSH";

constexpr provider_row telemetry_provider = {
    .path = paths::telemetry_tree,
    .callback = ssh_telemetry_fill_bag,
    .library_location = "EDM INIT SSHD DATASTORE",
    .registration_failed = "Failed to register oc ssh telemetry edm",
    .registration_debug = "%s:%d Failed to register oc ssh telemetry edm, error: %s",
    .register_records = register_telemetry_records,
    .records_failed = "Failed to register ssh telemetry oper bag",
    .records_debug = "%s:%d Failed to register ssh telemetry oper bag, error: %s",
    .records_last = false,
};

}  // namespace

platform_status ocssh_edm_init() {
    return register_provider(telemetry_provider, __func__);
}

void ocssh_telemetry_init() {
    const platform_status status =
        telemetry_producer_init(producer_name, paths::telemetry_event, agent_handles.event_manager);
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, producer_name);
        trace_error(oper_trace_telemetry, {"create", status});
    }
}

void ocssh_telemetry_publish() {
    const platform_status status = telemetry_producer_publish(paths::telemetry_event, ssh_telemetry_fill_bag, nullptr);
    if (status != PLATFORM_OK) {
        debug_print_for(debug_telemetry, "%s:%d Failed to publish, error: %s", __func__, __LINE__,
                        platform_status_text(status));
        trace_error(oper_trace_telemetry, {"publish", status});
    }
}
