/// Network namespaces of VRFs in which the tests open real connections.
#ifndef UNIT_LINUX_VRF_NAMESPACE_SUPPORT_H
#define UNIT_LINUX_VRF_NAMESPACE_SUPPORT_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/stat.h>

#include "unit/linux/platform_test_support.h"

namespace platform_test {

inline constexpr char red[] = "red";  ///< a VRF

/// Identifies the network namespace of this process.
inline ino_t own_network_namespace() {
    struct stat status = {};
    EXPECT_EQ(0, stat("/proc/self/ns/net", &status));
    return status.st_ino;
}

/// A socket belongs to the namespace in which it is created, so the process enters the namespace only for that moment.
inline int socket_in_vrf(const std::string& vrf, int family) {
    const int own = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int other = open(("/run/netns/vrf-" + vrf).c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(0, setns(other, CLONE_NEWNET)) << strerror(errno);
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, setns(own, CLONE_NEWNET));
    close(own);
    close(other);
    return fd;
}

/// The loopback address of a family, with a port.
struct loopback_address {
    sockaddr_storage storage = {};
    socklen_t size = 0;

    loopback_address(int family, uint16_t port) {
        if (family == AF_INET) {
            auto* address = reinterpret_cast<sockaddr_in*>(&storage);
            *address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
            size = sizeof *address;
        } else {
            auto* address = reinterpret_cast<sockaddr_in6*>(&storage);
            *address = {AF_INET6, htons(port), 0, IN6ADDR_LOOPBACK_INIT, 0};
            size = sizeof *address;
        }
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

/// A server of a VRF, as far as the packet filter is concerned.
class vrf_listener {
  public:
    vrf_listener(const std::string& vrf, int family, uint16_t port) : fd(socket_in_vrf(vrf, family)) {
        const loopback_address address(family, port);
        EXPECT_EQ(0, bind(fd, address.get(), address.size)) << strerror(errno);
        EXPECT_EQ(0, listen(fd, 16));
    }
    ~vrf_listener() { close(fd); }
    vrf_listener(const vrf_listener&) = delete;
    vrf_listener& operator=(const vrf_listener&) = delete;
    int accept_one() const { return accept4(fd, nullptr, nullptr, SOCK_CLOEXEC); }

  private:
    int fd;
};

/// A connection to a port of the VRF; -1 if there is no answer within a fifth of a second.
inline int connect_to_vrf(const std::string& vrf, int family, uint16_t port) {
    const int fd = socket_in_vrf(vrf, family);
    EXPECT_EQ(0, fcntl(fd, F_SETFL, O_NONBLOCK));
    const loopback_address address(family, port);
    EXPECT_TRUE(connect(fd, address.get(), address.size) == 0 || errno == EINPROGRESS || errno == ECONNREFUSED);
    pollfd waiting = {fd, POLLOUT, 0};
    int error = ETIMEDOUT;
    socklen_t size = sizeof error;
    if (poll(&waiting, 1, 200) == 1) {
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
    }
    if (error != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

inline bool reachable(const std::string& vrf, uint16_t port, int family = AF_INET) {
    const int fd = connect_to_vrf(vrf, family, port);
    if (fd >= 0) {
        close(fd);
    }
    return fd >= 0;
}

inline std::string nft_in(const std::string& vrf, const std::string& arguments) {
    return output_of("ip netns exec vrf-" + vrf + " nft " + arguments);
}

/// Creates the VRF's namespace with its loopback interface up.
inline void add_vrf(const std::string& vrf) {
    ASSERT_TRUE(run("ip netns add vrf-" + vrf + " && ip -n vrf-" + vrf + " link set lo up"));
}

inline void remove_vrf(const std::string& vrf) {
    ASSERT_TRUE(run("ip netns del vrf-" + vrf));
}

}  // namespace platform_test

#endif
