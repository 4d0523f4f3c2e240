#include "ocsystem_ssh_telemetry_edm.h"

#include <cstdlib>

#include "config_files/parameter_table.h"
#include "core/debug.h"
#include "core/log.h"
#include "oper/record_schemas.h"
#include "oper/trace_points.h"
#include "platform/record_codec.h"
#include "vrf/vrf_appliers.h"

namespace {

constexpr char source_name[] = "src/ocsystem_ssh_telemetry_edm";

/// Allocates an optional value. Running out of memory for a few bytes is fatal.
template <typename value_type>
value_type* optional_value(const char* condition) {
    auto* value = static_cast<value_type*>(malloc(sizeof(value_type)));
    if (value == nullptr) {
        log_details("Assertion failed:", condition, source_name);
        abort();
    }
    return value;
}

/// The number of a setting, truncated to 16 bits without a range check.
uint16_t limit(server_parameter parameter) {
    const char* text = effective_text(server_config.parameters[parameter]);
    return static_cast<uint16_t>(text != nullptr ? atoi(text) : 0);
}

bool server_is_enabled() {
    return server_config.parameters[SERVER_PROTOCOL].current != nullptr || default_vrf_configured != 0;
}

void fill(openconfig_ssh_server_state* state) {
    state->Enable = optional_value<uint32_t>("ret_bag.ssh_server.state.enable != NULL");
    state->ProtocolVersion = optional_value<int32_t>("ret_bag.ssh_server.state.protocol_version != NULL");
    state->Timeout = optional_value<uint16_t>("ret_bag.ssh_server.state.timeout != NULL");
    state->SessionLimit = optional_value<uint16_t>("ret_bag.ssh_server.state.session_limit != NULL");
    state->RateLimit = optional_value<uint16_t>("ret_bag.ssh_server.state.rate_limit != NULL");
    *state->Enable = server_is_enabled() ? 1 : 0;
    *state->ProtocolVersion = 0;
    *state->Timeout = limit(SERVER_LOGIN_GRACE_TIME);
    *state->RateLimit = limit(SERVER_RATE_LIMIT);
    *state->SessionLimit = limit(SERVER_SESSION_LIMIT);
    debug_print_for(
        debug_telemetry,
        "Fill the bag with values: Enable= %d, Protocol version= %s Timeout= %u, Session-limit= %u, Rate-limit= %u",
        static_cast<int>(*state->Enable), "v2", static_cast<unsigned>(*state->Timeout),
        static_cast<unsigned>(*state->SessionLimit), static_cast<unsigned>(*state->RateLimit));
}

}  // namespace

platform_status ssh_telemetry_fill_bag(datastore_read_request* request, const char* /*item*/, void* /*context*/) {
    debug_print_for(debug_telemetry, "In edm get function for OC SSH telemetry");
    const record_descriptor* descriptor = overlay_crypto_ssh_system_descriptor();
    overlay_crypto_ssh_system record{};
    fill(&record.SshServer.State);
    void* encoded = nullptr;
    size_t size = 0;
    platform_status status = record_encode(descriptor, &record, &encoded, &size);
    record_release(descriptor, &record);
    if (status != PLATFORM_OK) {
        debug_print_for(debug_telemetry, "Failed to encode oc ssh telemetry bag, error %s.",
                        platform_status_text(status));
        log_status(ERR_ERRNO, status, "Failed to encode oc ssh telemetry bag");
        trace_error(oper_trace_telemetry, {"encode", status});
        return status;
    }
    status = datastore_request_set_record(request, descriptor, encoded, size);
    free(encoded);
    debug_print_for(debug_telemetry, "In bag-fill function for SSH telemetry. Bag size = %d, rc= %s",
                    static_cast<int>(size), platform_status_text(status));
    return status;
}
