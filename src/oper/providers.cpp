#include "oper/providers.h"

#include <cstring>

#include "core/agent_state.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/paths.h"
#include "oper/record_schemas.h"
#include "oper/server_params.h"
#include "oper/session_records.h"
#include "oper/show_sessions.h"
#include "oper/trace_points.h"

namespace {

/// An item of a provider's tree.
struct provider_item {
    const char* name;
    platform_status (*handler)(datastore_read_request* request);
};

struct provider_items {
    const provider_item* item;
    size_t count;
};

/// The item exists but is not served.
platform_status no_history(datastore_read_request* /*request*/) {
    return DATASTORE_NO_DATA;
}

constexpr provider_item session_record_items[] = {
    {"brief", get_ssh_session_brief}, {"detail", get_ssh_session_detail}, {"rekey", get_ssh_session_rekey},
    {"history", no_history},          {"history_detail", no_history},
};
constexpr provider_item server_session_items[] = {
    {"brief", show_ssh_cli}, {"detail", show_ssh_session_cli}, {"rekey", show_ssh_rekey_cli}};
constexpr provider_item client_session_items[] = {
    {"brief", show_ssh_client_cli}, {"detail", show_ssh_client_session_cli}, {"rekey", show_ssh_client_rekey_cli}};

/// Readers see every failure except "no data" as "nothing to encode".
platform_status reported(platform_status status) {
    return status == PLATFORM_OK || status == DATASTORE_NO_DATA ? status : platform_status{DATASTORE_NOTHING_TO_ENCODE};
}

template <const auto& items>
platform_status answer_item(datastore_read_request* request, const char* item, void* /*context*/) {
    for (const provider_item& row : items) {
        if (strcmp(row.name, item) == 0) {
            return reported(row.handler(request));
        }
    }
    return DATASTORE_NOTHING_TO_ENCODE;
}

platform_status answer_server_params(datastore_read_request* request, const char* /*item*/, void* /*context*/) {
    return reported(get_ssh_server_params(request));
}

constexpr provider_row session_record_provider = {
    .path = paths::session_record_tree,
    .callback = answer_item<session_record_items>,
    .library_location = "EDM INIT SSH DATASTORE EDM XML",
    .registration_failed = "Failed to register ssh edm for xml",
    .registration_debug = nullptr,
    .register_records = register_session_records,
    .records_failed = "Failed to register ssh xml bag",
    .records_debug = nullptr,
    .records_last = false,
};

constexpr provider_row server_session_provider = {
    .path = paths::server_session_tree,
    .callback = answer_item<server_session_items>,
    .library_location = "EDM INIT SSHD DATASTORE",
    .registration_failed = "Failed to register ssh edm",
    .registration_debug = nullptr,
    .register_records = register_command_line_records,
    .records_failed = "Failed to register sshd cli bag",
    .records_debug = nullptr,
    .records_last = true,
};

constexpr provider_row client_session_provider = {
    .path = paths::client_session_tree,
    .callback = answer_item<client_session_items>,
    .library_location = "EDM INIT SSH CLIENT DATASTORE",
    .registration_failed = "Failed to register ssh edm",
    .registration_debug = nullptr,
    .register_records = nullptr,
    .records_failed = nullptr,
    .records_debug = nullptr,
    .records_last = false,
};

constexpr provider_row server_params_provider = {
    .path = paths::server_parameters_tree,
    .callback = answer_server_params,
    .library_location = "EDM INIT SSHD PARAMS",
    .registration_failed = "Failed to register ssh param edm",
    .registration_debug = "%s:%d Error:%s(0x%x) Failed to register ssh edm for providing ssh server parameters",
    .register_records = register_server_parameter_records,
    .records_failed = "Failed to register ssh server params bag",
    .records_debug = nullptr,
    .records_last = false,
};

platform_status register_records_of(const provider_row& row, const char* routine) {
    const platform_status status = row.register_records == nullptr ? PLATFORM_OK : row.register_records();
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, row.records_failed);
        if (row.records_debug != nullptr) {
            debug_print(row.records_debug, routine, __LINE__, platform_status_text(status));
        }
        trace_error(oper_trace_record_set, {row.path, status});
    }
    return status;
}

}  // namespace

platform_status register_provider(const provider_row& row, const char* routine) {
    if (!datastore_client_available()) {
        log_location(ERR_DATASTORE_BIND, DATASTORE_UNAVAILABLE, row.library_location);
        return DATASTORE_UNAVAILABLE;
    }
    platform_status status = row.records_last ? PLATFORM_OK : register_records_of(row, routine);
    if (status != PLATFORM_OK) {
        return status;
    }
    datastore_provider* provider = nullptr;
    status = datastore_provider_register(row.path, row.callback, agent_handles.event_manager, nullptr, &provider);
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, row.registration_failed);
        if (row.registration_debug != nullptr) {
            debug_print(row.registration_debug, routine, __LINE__, platform_status_text(status), status);
        }
        trace_error(oper_trace_provider, {row.path, status});
        return status;
    }
    status = row.records_last ? register_records_of(row, routine) : PLATFORM_OK;
    if (status != PLATFORM_OK) {
        datastore_provider_unregister(provider);
    }
    return status;
}

platform_status register_session_record_provider() {
    return register_provider(session_record_provider, __func__);
}
platform_status register_server_session_provider() {
    return register_provider(server_session_provider, __func__);
}
platform_status register_client_session_provider() {
    return register_provider(client_session_provider, __func__);
}
platform_status sshd_params_edm_init() {
    return register_provider(server_params_provider, __func__);
}
