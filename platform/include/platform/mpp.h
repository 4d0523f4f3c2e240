/// Management-plane protection: which services may be reached in which VRF, and when.
#ifndef PLATFORM_MPP_H
#define PLATFORM_MPP_H

#include <stdint.h>

#include "platform/status.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { MPP_SERVICE_SSH = 1, MPP_SERVICE_NETCONF = 64 };
enum { MPP_FAMILY_IPV4 = 4, MPP_FAMILY_IPV6 = 6 };

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

/// Blocks new connections to one service of the VRF in one address family immediately, for as long as its access list is
/// not loaded. Independent of mpp_vrf_block: unblocking the VRF leaves the service blocked in this family. If the filter
/// cannot be changed the error is returned, and the platform tries again by itself; a VRF that is blocked then stays
/// blocked until the filter could be changed. EINVAL for an unknown service or family. ENOENT if the VRF has no namespace;
/// then nothing is recorded.
///
/// The block outlives the process. The next one takes it over and lifts it when it reaches its event loop for the first
/// time, unless the service has been blocked again by then.
platform_status mpp_service_block(uint32_t service, uint32_t family, const char* vrf_name);

/// Unblocks it when the calling handler has returned to the event loop. Also accepted when not blocked, which includes
/// that an operator has lifted the block.
platform_status mpp_service_unblock(uint32_t service, uint32_t family, const char* vrf_name);

/// A network namespace (name with "vrf-" prefix) was created or deleted.
platform_status mpp_namespace_created(const char* namespace_name);
platform_status mpp_namespace_deleted(const char* namespace_name);

#ifdef __cplusplus
}
#endif

#endif
