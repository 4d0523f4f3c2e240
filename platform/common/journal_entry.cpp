#include "common/journal_entry.h"

#include <endian.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace {

/// Returns the first component of `path` that names a service, or an empty string if there is none.
std::string service_in_path(std::string_view path) {
    while (!path.empty()) {
        path.remove_prefix(1);
        const std::string_view component = path.substr(0, path.find('/'));
        if (component.ends_with(".service")) {
            return std::string(component);
        }
        path.remove_prefix(component.size());
    }
    return {};
}

}  // namespace

void append_journal_field(std::string& entry, std::string_view assignment, std::string_view value) {
    if (value.find('\n') == std::string_view::npos) {
        entry.append(assignment).append(value);
    } else {
        const uint64_t size = htole64(value.size());
        entry.append(assignment.substr(0, assignment.size() - 1)).append("\n");
        entry.append(reinterpret_cast<const char*>(&size), sizeof size).append(value);
    }
    entry += '\n';
}

int send_datagram(int fd, std::string_view path, std::string_view datagram) noexcept {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const ssize_t count = sendto(fd, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                 reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return count >= 0 ? 0 : errno;
}

std::string service_of_cgroup(std::string_view cgroup) {
    while (!cgroup.empty()) {
        const std::string_view line = cgroup.substr(0, cgroup.find('\n'));
        cgroup.remove_prefix(std::min(line.size() + 1, cgroup.size()));
        const size_t path = line.find(":/");
        if (path != std::string_view::npos &&
            (line.starts_with("0::") || line.substr(0, path).ends_with(":name=systemd"))) {
            std::string service = service_in_path(line.substr(path + 1));
            if (!service.empty()) {
                return service;
            }
        }
    }
    return {};
}
