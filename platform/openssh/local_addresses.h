/// The addresses of a VRF.
#ifndef OPENSSH_LOCAL_ADDRESSES_H
#define OPENSSH_LOCAL_ADDRESSES_H

#include <string>

namespace openssh {

/// Whether a server in the network namespace (a path) could listen on an address now. True if that cannot be found out, for
/// instance because the namespace does not exist.
bool namespace_has_address(const std::string& network_namespace, const std::string& address);

}  // namespace openssh

#endif
