#include "openssh/reporter/connection.h"

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace openssh {

namespace {

/// sshd and ssh open few files, and their connection is one of the first.
constexpr int most_own_descriptors = 64;

void write_ipv6(const sockaddr_in6& address, peer_address& peer) {
    if (IN6_IS_ADDR_V4MAPPED(&address.sin6_addr)) {
        inet_ntop(AF_INET, &address.sin6_addr.s6_addr[12], peer.text, sizeof(peer.text));
        return;
    }
    inet_ntop(AF_INET6, &address.sin6_addr, peer.text, sizeof(peer.text));
    char interface[IF_NAMESIZE] = {};
    if (IN6_IS_ADDR_LINKLOCAL(&address.sin6_addr) && if_indextoname(address.sin6_scope_id, interface) != nullptr) {
        const size_t length = std::strlen(peer.text);
        snprintf(peer.text + length, sizeof(peer.text) - length, "%%%s", interface);
    }
}

void write_address(const sockaddr_storage& address, peer_address& peer) {
    peer = {};
    if (address.ss_family == AF_INET) {
        const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(address);
        inet_ntop(AF_INET, &ipv4.sin_addr, peer.text, sizeof(peer.text));
        peer.port = ntohs(ipv4.sin_port);
    } else if (address.ss_family == AF_INET6) {
        const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(address);
        write_ipv6(ipv6, peer);
        peer.port = ntohs(ipv6.sin6_port);
    }
}

}  // namespace

bool look_at_socket(int socket_descriptor, peer_address* peer, byte_counters* bytes) noexcept {
    int protocol = 0;
    socklen_t size = sizeof(protocol);
    sockaddr_storage address = {};
    socklen_t address_size = sizeof(address);
    if (getsockopt(socket_descriptor, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) != 0 || protocol != IPPROTO_TCP ||
        getpeername(socket_descriptor, reinterpret_cast<sockaddr*>(&address), &address_size) != 0) {
        return false;
    }
    if (peer != nullptr) {
        write_address(address, *peer);
    }
    tcp_info info = {};
    size = sizeof(info);
    if (bytes != nullptr && getsockopt(socket_descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
        size > offsetof(tcp_info, tcpi_bytes_received)) {
        *bytes = {.sent = info.tcpi_bytes_acked, .received = info.tcpi_bytes_received, .known = 1};
    }
    return true;
}

bool look_at_own_connection(peer_address* peer, byte_counters* bytes) noexcept {
    for (int descriptor = 0; descriptor < most_own_descriptors; ++descriptor) {
        if (look_at_socket(descriptor, peer, bytes)) {
            return true;
        }
    }
    return false;
}

}  // namespace openssh
