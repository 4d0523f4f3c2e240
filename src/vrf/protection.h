/// Management-plane protection of a VRF's servers. A failure of the service is traced and does not stop a server.
#ifndef VRF_PROTECTION_H
#define VRF_PROTECTION_H

#include <cstdint>

/// Sets or clears the service (MPP_SERVICE_SSH, MPP_SERVICE_NETCONF) of the VRF.
void mark_vrf(uint32_t service, const char* vrf_name);
void unmark_vrf(uint32_t service, const char* vrf_name);

/// Block and unblock new connections to the VRF's servers. A configured VRF's nftables state is initialised before its
/// first block.
void block_vrf(const char* vrf_name);
void unblock_vrf(const char* vrf_name);

/// Announces a VRF's namespace (name with the prefix). A failure is also logged. Returns whether it was accepted.
bool announce_namespace(const char* namespace_name);

#endif
