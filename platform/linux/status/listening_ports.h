/// Where a process listens, as the kernel knows it.
#ifndef LINUX_STATUS_LISTENING_PORTS_H
#define LINUX_STATUS_LISTENING_PORTS_H

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "platform/status.h"

/// Stores for each process the TCP ports on which it listens itself, in its own network namespace: none if it is gone. A
/// child process enters the namespaces, one after the other, for at most three seconds altogether (ETIMEDOUT).
platform_status listening_ports_query(const std::vector<pid_t>& processes, std::vector<std::set<uint16_t>>& ports);

/// Whether the process runs in another network namespace than the VRF's present one; false if either is gone.
bool runs_in_another_namespace(pid_t process, const std::string& vrf_name);

#endif
