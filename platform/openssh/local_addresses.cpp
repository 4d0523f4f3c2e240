#include "openssh/local_addresses.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>

#include <cerrno>

#include "common/file_descriptor.h"

namespace openssh {

namespace {

/// Opens a socket in another network namespace, and returns to this one. Returns -1 on failure.
int socket_in(const std::string& network_namespace, int family) {
    const file_descriptor own(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
    const file_descriptor other(open(network_namespace.c_str(), O_RDONLY | O_CLOEXEC));
    if (own.get() < 0 || other.get() < 0 || setns(other.get(), CLONE_NEWNET) != 0) {
        return -1;
    }
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return setns(own.get(), CLONE_NEWNET) == 0 ? fd : -1;
}

}  // namespace

bool namespace_has_address(const std::string& network_namespace, const std::string& address) {
    sockaddr_in ipv4 = {};
    ipv4.sin_family = AF_INET;
    sockaddr_in6 ipv6 = {};
    ipv6.sin6_family = AF_INET6;
    const bool is_ipv4 = inet_pton(AF_INET, address.c_str(), &ipv4.sin_addr) == 1;
    if (!is_ipv4 && inet_pton(AF_INET6, address.c_str(), &ipv6.sin6_addr) != 1) {
        return true;
    }
    const file_descriptor fd(socket_in(network_namespace, is_ipv4 ? AF_INET : AF_INET6));
    const auto* bound = is_ipv4 ? reinterpret_cast<sockaddr*>(&ipv4) : reinterpret_cast<sockaddr*>(&ipv6);
    const socklen_t size = is_ipv4 ? sizeof ipv4 : sizeof ipv6;
    return fd.get() < 0 || bind(fd.get(), bound, size) == 0 || errno != EADDRNOTAVAIL;
}

}  // namespace openssh
