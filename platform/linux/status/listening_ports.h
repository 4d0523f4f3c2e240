/// Where a process listens, as the kernel knows it.
#ifndef LINUX_STATUS_LISTENING_PORTS_H
#define LINUX_STATUS_LISTENING_PORTS_H

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>

/// The TCP ports on which the process itself listens, in its own network namespace; empty if it is gone.
std::set<uint16_t> listening_ports(pid_t process);

/// Whether the process runs in another network namespace than the VRF's present one; false if either is gone.
bool runs_in_another_namespace(pid_t process, const std::string& vrf_name);

#endif
