/// Helpers for the tests of telemetry: a provider of the SSH server's state whose answers can be chosen.
#ifndef UNIT_LINUX_TELEMETRY_TEST_SUPPORT_H
#define UNIT_LINUX_TELEMETRY_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>

#include "platform/datastore.h"
#include "platform/record_codec.h"

namespace telemetry_test {

inline constexpr char tree_path[] = "/oper/overlays/gl/crypto_ssh/openconfig-system/";
inline constexpr char event_path[] =
    "/oper/overlays/gl/crypto_ssh/openconfig-system/system__bag_overlay_crypto_ssh_system";

inline constexpr record_descriptor state_descriptor = {
    "overlay_crypto_ssh_system", "telemetry_test",
    "$7={SshServer}$5;$3={Enable}p(b){ProtocolVersion}p([openconfig_system_terminal_protocol_version_]e){Timeout}p(I)"
    "{RateLimit}p(I){SessionLimit}p(I);$5={State}$3;",
    "$7=$5.;$3=p(b)p(e)p(I)p(I)p(I);$5=$3.;"};

inline void register_state_record() {
    record_transaction* transaction = nullptr;
    ASSERT_EQ(record_registration_begin(&transaction), PLATFORM_OK);
    ASSERT_EQ(record_register(transaction, &state_descriptor), PLATFORM_OK);
    ASSERT_EQ(record_registration_end(transaction), PLATFORM_OK);
}

struct server_state {
    bool has_enable = true;
    bool has_timeout = true;
    uint32_t enable = 1;
    int32_t protocol_version = 0;
    uint16_t timeout = 30;
    uint16_t rate_limit = 60;
    uint16_t session_limit = 64;
    platform_status result = PLATFORM_OK;
    bool garbage = false;  ///< bytes that are not a valid record
    int filled = 0;        ///< how often the record was made
};

/// The record in its native layout.
struct state_record {
    const uint32_t* enable;
    const int32_t* protocol_version;
    const uint16_t* timeout;
    const uint16_t* rate_limit;
    const uint16_t* session_limit;
};

/// Answers with the server_state in `context`.
inline platform_status fill_state(datastore_read_request* request, const char* /*item*/, void* context) {
    auto& state = *static_cast<server_state*>(context);
    state.filled++;
    if (state.result != PLATFORM_OK) {
        return state.result;
    }
    if (state.garbage) {
        return datastore_request_set_record(request, &state_descriptor, "x", 1);
    }
    const state_record record = {state.has_enable ? &state.enable : nullptr, &state.protocol_version,
                                 state.has_timeout ? &state.timeout : nullptr, &state.rate_limit, &state.session_limit};
    void* encoded = nullptr;
    size_t size = 0;
    platform_status status = record_encode(&state_descriptor, &record, &encoded, &size);
    if (status == PLATFORM_OK) {
        status = datastore_request_set_record(request, &state_descriptor, encoded, size);
    }
    free(encoded);
    return status;
}

}  // namespace telemetry_test

#endif
