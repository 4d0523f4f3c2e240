/// Management-plane protection: which services may be reached in which VRF, and when.
#ifndef PLATFORM_MPP_H
#define PLATFORM_MPP_H

#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { MPP_SERVICE_SSH = 1, MPP_SERVICE_NETCONF = 64 };

/// Opens the client for one service code.
platform_status mpp_init(uint32_t service);

/// Closes it; harmless when it is not open.
void mpp_close(uint32_t service);

/// Makes the service reachable, or unreachable, in the VRF (name without prefix).
platform_status mpp_vrf_set(uint32_t service, const char* vrf_name);
platform_status mpp_vrf_unset(uint32_t service, const char* vrf_name);

/// Creates the VRF's packet-filter state. Required once before the first block.
platform_status mpp_vrf_nft_init(const char* vrf_name);

/// Blocks new connections to the services' ports in the VRF immediately.
platform_status mpp_vrf_block(const char* vrf_name);

/// Unblocks them. Takes effect when the calling handler has returned to the event loop, so that access lists which the
/// handler still has to load are in force before a port opens. Also accepted when not blocked.
platform_status mpp_vrf_unblock(const char* vrf_name);

/// A network namespace (name with "vrf-" prefix) was created or deleted.
platform_status mpp_namespace_created(const char* namespace_name);
platform_status mpp_namespace_deleted(const char* namespace_name);

#ifdef __cplusplus
}
#endif

#endif
