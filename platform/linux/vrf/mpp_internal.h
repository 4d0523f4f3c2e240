/// The state of management-plane protection, for the operator.
#ifndef LINUX_VRF_MPP_INTERNAL_H
#define LINUX_VRF_MPP_INTERNAL_H

#include <ctime>
#include <string>
#include <vector>

#include "platform/mpp.h"

struct mpp_vrf_status {
    std::string vrf_name;             ///< without prefix
    bool ssh;                         ///< the SSH service is set for the VRF
    bool netconf;                     ///< the NETCONF service is set for the VRF
    bool initialised;                 ///< the namespace has the packet-filter table
    bool blocked;                     ///< no new connection is let in
    bool unblock_requested;           ///< will be opened when control returns to the loop
    std::vector<std::string> closed;  ///< services blocked because their access list is not loaded, such as "ssh ipv4"
    time_t closed_since;     ///< since when new connections are blocked, of all services or of some; 0 if they are not
    uint32_t blocked_ports;  ///< what the packet filter has to block (filter_ports)
};

/// Every VRF that the service knows, in byte order of the names.
std::vector<mpp_vrf_status> mpp_status();

/// Lifts all blocks of a VRF immediately, on an operator's request, and stores the services that were blocked; none if
/// nothing was blocked. On failure, which is logged, everything stays blocked.
platform_status mpp_lift_blocks(const std::string& vrf_name, std::vector<std::string>& lifted);

/// For tests: resets everything, as in a new process. The packet filters remain.
void mpp_reset();

#endif
