/// The network namespace of a VRF, by its name.
#ifndef VRF_VRF_NAMESPACE_H
#define VRF_VRF_NAMESPACE_H

#include <cstddef>

/// Prefix of the VRF's name in the name of its network namespace.
inline constexpr char vrf_namespace_prefix[] = "vrf-";

/// Whether the VRF's network namespace exists.
bool vrf_namespace_exists(const char* vrf_name);

/// The name of the VRF's network namespace: "vrf-" and the VRF's name, cut to `size` bytes.
void vrf_namespace_name(const char* vrf_name, char* name, size_t size);

#endif
