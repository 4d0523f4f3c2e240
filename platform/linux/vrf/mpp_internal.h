/// The state of management-plane protection, for the operator.
#ifndef LINUX_VRF_MPP_INTERNAL_H
#define LINUX_VRF_MPP_INTERNAL_H

#include <string>
#include <vector>

#include "platform/mpp.h"

struct mpp_vrf_status {
    std::string vrf_name;    ///< without prefix
    bool ssh;                ///< the SSH service is marked for the VRF
    bool netconf;            ///< the NETCONF service is marked for the VRF
    bool initialised;        ///< the namespace has the packet-filter table
    bool blocked;            ///< no new connection is let in
    bool unblock_requested;  ///< will be opened when control returns to the loop
};

/// Every VRF that the service knows, in byte order of the names.
std::vector<mpp_vrf_status> mpp_status();

/// For tests: forgets everything, as a new process would. The packet filters stay as they are.
void mpp_reset();

#endif
