#include "linux/status/listening_ports.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "common/file_descriptor.h"
#include "common/process_files.h"
#include "linux/process/child_output.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"

namespace {

constexpr unsigned listen_state = 10;  ///< TCP_LISTEN

/// Queries the listening sockets of a family in the current namespace. The files in /proc/net would make the kernel go
/// through the connections of all namespaces.
bool ask_for_listeners(int fd, uint8_t family) {
    struct {
        nlmsghdr header;
        inet_diag_req_v2 body;
    } request = {};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.body.sdiag_family = family;
    request.body.sdiag_protocol = IPPROTO_TCP;
    request.body.idiag_states = 1U << listen_state;
    return send(fd, &request, sizeof request, 0) == static_cast<ssize_t>(sizeof request);
}

/// Adds the ports of one part of the answer. Returns whether another part follows.
bool add_part(const char* part, ssize_t size, const std::set<uint64_t>& sockets, std::set<uint16_t>& ports) {
    int left = static_cast<int>(size);
    for (const auto* header = reinterpret_cast<const nlmsghdr*>(part); mnl_nlmsg_ok(header, left);
         header = mnl_nlmsg_next(header, &left)) {
        if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
            return false;
        }
        const auto* found = static_cast<const inet_diag_msg*>(mnl_nlmsg_get_payload(header));
        if (sockets.contains(found->idiag_inode)) {
            ports.insert(ntohs(found->id.idiag_sport));
        }
    }
    return size > 0;
}

void add_ports(uint8_t family, const std::set<uint64_t>& sockets, std::set<uint16_t>& ports) {
    const file_descriptor diagnosis(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (diagnosis.get() < 0 || !ask_for_listeners(diagnosis.get(), family)) {
        return;
    }
    alignas(nlmsghdr) std::array<char, 16384> part = {};
    while (add_part(part.data(), recv(diagnosis.get(), part.data(), part.size(), 0), sockets, ports)) {
    }
}

/// Enters the process's namespace permanently.
std::set<uint16_t> ports_of(pid_t process) {
    const std::set<uint64_t> sockets = process_sockets(process);
    std::set<uint16_t> ports;
    const file_descriptor target(open(process_file(process, "ns/net").c_str(), O_RDONLY | O_CLOEXEC));
    if (!sockets.empty() && target.get() >= 0 && setns(target.get(), CLONE_NEWNET) == 0) {
        add_ports(AF_INET, sockets, ports);
        add_ports(AF_INET6, sockets, ports);
    }
    return ports;
}

/// The child: writes a line for each port, preceded by the index of its process.
int write_ports(const std::vector<pid_t>& processes, int fd) {
    for (size_t i = 0; i < processes.size(); i++) {
        for (const uint16_t port : ports_of(processes[i])) {
            dprintf(fd, "%zu %u\n", i, unsigned{port});
        }
    }
    return EXIT_SUCCESS;
}

}  // namespace

platform_status listening_ports_query(const std::vector<pid_t>& processes, std::vector<std::set<uint16_t>>& ports) {
    ports.assign(processes.size(), {});
    std::string text;
    const platform_status status =
        processes.empty()
            ? platform_status{PLATFORM_OK}
            : child_output([&processes](int fd) { return write_ports(processes, fd); }, child_output_limit, text);
    std::istringstream lines(text);
    size_t place = 0;
    unsigned port = 0;
    while (lines >> place >> port) {
        ports.at(place).insert(static_cast<uint16_t>(port));
    }
    return status;
}

bool runs_in_another_namespace(pid_t process, const std::string& vrf_name) {
    struct stat wanted = {};
    struct stat present = {};
    const std::string own = std::string(namespace_directory) + '/' + namespace_name_prefix + vrf_name;
    return stat(own.c_str(), &wanted) == 0 && stat(process_file(process, "ns/net").c_str(), &present) == 0 &&
           (wanted.st_ino != present.st_ino || wanted.st_dev != present.st_dev);
}
