/// The SSH server's state in the OpenConfig system model.
#ifndef OCSYSTEM_SSH_TELEMETRY_EDM_H
#define OCSYSTEM_SSH_TELEMETRY_EDM_H

#include <cstdint>

#include "platform/datastore.h"

struct openconfig_ssh_server_state {
    uint32_t* Enable;
    int32_t* ProtocolVersion;
    uint16_t* Timeout;
    uint16_t* RateLimit;
    uint16_t* SessionLimit;
};

/// Record `overlay_crypto_ssh_system`. Its values are optional, hence pointers.
struct overlay_crypto_ssh_system {
    struct {
        openconfig_ssh_server_state State;
    } SshServer;
};

/// Builds the record for a read or an event. Returns 0, or the codec's error after logging it.
platform_status ssh_telemetry_fill_bag(datastore_read_request* request, const char* item, void* context);

#endif
