/// The ports on which a process listens, as reported by the kernel.
#ifndef LINUX_STATUS_LISTENING_PORTS_H
#define LINUX_STATUS_LISTENING_PORTS_H

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "platform/status.h"

/// Stores for each process the TCP ports on which it listens in its own network namespace; none if it has ended. A child
/// process enters the namespaces, one after the other, for at most three seconds altogether (ETIMEDOUT).
platform_status listening_ports_query(const std::vector<pid_t>& processes, std::vector<std::set<uint16_t>>& ports);

/// Whether the process runs in another network namespace than the VRF's current one; false if either no longer exists.
bool runs_in_another_namespace(pid_t process, const std::string& vrf_name);

#endif
