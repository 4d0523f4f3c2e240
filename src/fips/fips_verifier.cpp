#include "fips/fips_verifier.h"

#include <cerrno>
#include <memory>
#include <new>

#include "config_files/algorithm_names.h"
#include "config_files/parameter_table.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/refusal.h"
#include "fips/list_filter.h"
#include "fips/trace_points.h"

namespace {

/// A kind of list that FIPS mode filters, for server and client.
struct narrowed_list {
    const algorithm_entry* entries[2];
    list_filter_function filter;
    const char* failure_text;
    const char* failure_message;
    const char* no_memory_text;
    const char* no_memory_message;
    const char* nothing_left_text;
};

constexpr composed_list no_kex_left_text =
    compose::fips_names(algorithm_kind::kex, algorithm_fips::refused, " are not allowed in FIPS mode.");
constexpr composed_list no_cipher_left_text =
    compose::fips_names(algorithm_kind::cipher, algorithm_fips::refused, " is not allowed in FIPS mode.");

const narrowed_list narrowed_lists[] = {
    {
        .entries = {&server_config.algorithms[SERVER_KEX_ALGORITHMS], &client_config.algorithms[CLIENT_KEX_ALGORITHMS]},
        .filter = get_modified_kex_list,
        .failure_text = "failed to get modified kex list in FIPS mode",
        .failure_message = "Failed to get modified kex list in FIPS mode",
        .no_memory_text = "memory allocate failed to check kex algorithm in FIPS mode",
        .no_memory_message = "Failed to allocate memory to check kex algorithm in FIPS mode",
        .nothing_left_text = no_kex_left_text.text,
    },
    {
        .entries = {&server_config.algorithms[SERVER_CIPHERS], &client_config.algorithms[CLIENT_CIPHERS]},
        .filter = get_modified_cipher_list,
        .failure_text = "failed to get modified cipher list in FIPS mode",
        .failure_message = "Failed to get modified cipher list in FIPS mode",
        .no_memory_text = "memory allocate failed to check cipher in FIPS mode",
        .no_memory_message = "Failed to allocate memory to check cipher in FIPS mode",
        .nothing_left_text = no_cipher_left_text.text,
    },
    {
        .entries = {&server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS],
                    &client_config.algorithms[CLIENT_HOST_KEY_ALGORITHMS]},
        .filter = get_modified_hostkey_list,
        .failure_text = "failed to get modified host-key list in FIPS mode",
        .failure_message = "Failed to get modified host-key list in FIPS mode",
        .no_memory_text = "memory allocate failed to check host-key algorithm in FIPS mode",
        .no_memory_message = "Failed to allocate memory to check host-key algorithm in FIPS mode",
        .nothing_left_text = "DSA, RSA(ssh-rsa), X509 and ED25519 are not allowed in FIPS mode.",
    },
};

platform_status refuse(const datastore_backend_call& call, platform_status status, const char* text) {
    return refuse_change(call.error_text, call.accepted, status, fips_trace_refused, "%s", text);
}

platform_status check_list(const narrowed_list& list, const char* text, const datastore_backend_call& call) {
    const std::unique_ptr<modified_list> left(new (std::nothrow) modified_list);
    if (left == nullptr) {
        log_status(ERR_ERRNO, ENOMEM, list.no_memory_message);
        return refuse(call, ENOMEM, list.no_memory_text);
    }
    if (list.filter(text, left->text) != 0) {
        log_error(list.failure_message);
        return refuse(call, EINVAL, list.failure_text);
    }
    return left->text[0] != '\0' ? PLATFORM_OK : refuse(call, EINVAL, list.nothing_left_text);
}

}  // namespace

platform_status verify_fips_mode(const datastore_backend_call* call, void*) {
    debug_print("%s, Entered", __func__);
    if ((call->change->event & DATASTORE_EVENT_CREATE) != 0) {
        for (const narrowed_list& list : narrowed_lists) {
            for (const algorithm_entry* entry : list.entries) {
                const platform_status status = check_list(list, entry->current, *call);
                if (status != PLATFORM_OK) {
                    return status;
                }
            }
        }
    }
    *call->accepted = 1;
    return PLATFORM_OK;
}

platform_status apply_fips_mode(const datastore_backend_call*, void*) {
    return PLATFORM_OK;
}
