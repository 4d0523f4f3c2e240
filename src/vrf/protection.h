/// Management-plane protection of a VRF's servers. A failure of the service is traced; it holds no server up.
#ifndef VRF_PROTECTION_H
#define VRF_PROTECTION_H

#include <cstdint>

/// The service (MPP_SERVICE_SSH, MPP_SERVICE_NETCONF) is to be reachable in the VRF, or no longer.
void mark_vrf(uint32_t service, const char* vrf_name);
void unmark_vrf(uint32_t service, const char* vrf_name);

/// Makes the VRF's packet-filter state.
void initialise_vrf_filter(const char* vrf_name);

/// Keeps new connections out of the VRF, and lets them in again.
void block_vrf(const char* vrf_name);
void unblock_vrf(const char* vrf_name);

/// Announces a VRF's namespace (name with its prefix). A failure is also reported. Returns whether it was accepted.
bool announce_namespace(const char* namespace_name);

#endif
