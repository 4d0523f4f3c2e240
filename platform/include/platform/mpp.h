/// Management-plane protection: which services may be reached in which VRF, and when.
#ifndef PLATFORM_MPP_H
#define PLATFORM_MPP_H

#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { MPP_SERVICE_SSH = 1, MPP_SERVICE_NETCONF = 64 };

/// Opens the service's client for one service code.
platform_status mpp_init(uint32_t service);

/// Closes it; harmless when it was not open.
void mpp_close(uint32_t service);

/// The service is to be reachable in the VRF (name without prefix), or no longer.
platform_status mpp_vrf_set(uint32_t service, const char* vrf_name);
platform_status mpp_vrf_unset(uint32_t service, const char* vrf_name);

/// Makes the VRF's packet-filter state. Needed once before the first block.
platform_status mpp_vrf_nft_init(const char* vrf_name);

/// Lets no new connection to the services' ports into the VRF, from now on.
platform_status mpp_vrf_block(const char* vrf_name);

/// Lets them in again. Takes effect when the handler that asks for it has returned to the event loop, so that the
/// access lists which it still has to load are in force before a port opens. Also accepted when not blocked.
platform_status mpp_vrf_unblock(const char* vrf_name);

/// A network namespace (name with its "vrf-") has appeared or gone.
platform_status mpp_namespace_created(const char* namespace_name);
platform_status mpp_namespace_deleted(const char* namespace_name);

#ifdef __cplusplus
}
#endif

#endif
