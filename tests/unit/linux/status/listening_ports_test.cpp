#include "linux/status/listening_ports.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "common/file_descriptor.h"

namespace {

using testing::UnorderedElementsAre;

std::set<uint16_t> listening_ports(pid_t process) {
    std::vector<std::set<uint16_t>> ports;
    EXPECT_EQ(listening_ports_query({process}, ports), PLATFORM_OK);
    EXPECT_EQ(ports.size(), 1U);
    return ports[0];
}

/// Listens on a free port of the loopback address and returns the port.
uint16_t listen_on_any_port(int fd, int family) {
    sockaddr_storage address = {};
    address.ss_family = static_cast<sa_family_t>(family);
    socklen_t size = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(fd, 1), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
    // The port is at the same offset in the addresses of both families.
    return ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
}

TEST(listening_ports, are_those_of_the_process) {
    const file_descriptor ipv4(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const file_descriptor ipv6(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const uint16_t first = listen_on_any_port(ipv4.get(), AF_INET);
    const uint16_t second = listen_on_any_port(ipv6.get(), AF_INET6);
    EXPECT_THAT(listening_ports(getpid()), UnorderedElementsAre(first, second));
}

TEST(listening_ports, of_another_process_are_excluded) {
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    const file_descriptor ipv4(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    listen_on_any_port(ipv4.get(), AF_INET);
    EXPECT_EQ(listening_ports(child).size(), 0U);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(listening_ports(child).size(), 0U) << "it is gone";
}

TEST(listening_ports, require_a_listening_socket) {
    const file_descriptor unused(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(listening_ports(getpid()).size(), 0U);
}

TEST(server_namespace, a_missing_one_does_not_differ) {
    EXPECT_FALSE(runs_in_another_namespace(getpid(), "no-such-vrf"));
}

}  // namespace
