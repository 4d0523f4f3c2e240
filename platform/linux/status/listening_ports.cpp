#include "linux/status/listening_ports.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <string_view>

#include "common/number.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"

namespace {

constexpr unsigned listen_state = 10;  ///< TCP_LISTEN

struct closer {
    void operator()(DIR* folder) const { closedir(folder); }
    void operator()(FILE* file) const { fclose(file); }
};

std::string path_of(pid_t process, const char* name) {
    return "/proc/" + std::to_string(process) + '/' + name;
}

/// The inode numbers of a process's sockets.
std::set<uint64_t> sockets_of(pid_t process) {
    constexpr std::string_view prefix = "socket:[";
    std::set<uint64_t> sockets;
    const std::unique_ptr<DIR, closer> folder(opendir(path_of(process, "fd").c_str()));
    while (const dirent* entry = folder != nullptr ? readdir(folder.get()) : nullptr) {
        std::array<char, 64> target = {};
        const ssize_t size = readlinkat(dirfd(folder.get()), entry->d_name, target.data(), target.size());
        const std::string_view text(target.data(), size > 0 ? static_cast<size_t>(size) : 0);
        if (text.starts_with(prefix) && text.ends_with(']')) {
            const std::string_view number = text.substr(prefix.size(), text.size() - prefix.size() - 1);
            sockets.insert(number_parse<uint64_t>(number).value_or(0));
        }
    }
    return sockets;
}

/// Reads one of the kernel's tables. Listening sockets come first, so a long list of connections is not read.
void add_ports(const std::string& table, const std::set<uint64_t>& sockets, std::set<uint16_t>& ports) {
    const std::unique_ptr<FILE, closer> file(fopen(table.c_str(), "re"));
    std::array<char, 512> line = {};
    bool is_heading = true;
    while (file != nullptr && fgets(line.data(), line.size(), file.get()) != nullptr) {
        unsigned port = 0;
        unsigned state = 0;
        uint64_t socket = 0;
        if (is_heading) {
            is_heading = false;
        } else if (sscanf(line.data(), "%*u: %*[^:]:%x %*s %x %*s %*s %*s %*u %*u %" SCNu64, &port, &state, &socket) !=
                       3 ||
                   state != listen_state) {
            return;
        } else if (sockets.contains(socket)) {
            ports.insert(static_cast<uint16_t>(port));
        }
    }
}

}  // namespace

std::set<uint16_t> listening_ports(pid_t process) {
    const std::set<uint64_t> sockets = sockets_of(process);
    std::set<uint16_t> ports;
    if (!sockets.empty()) {
        add_ports(path_of(process, "net/tcp"), sockets, ports);
        add_ports(path_of(process, "net/tcp6"), sockets, ports);
    }
    return ports;
}

bool runs_in_another_namespace(pid_t process, const std::string& vrf_name) {
    struct stat wanted = {};
    struct stat present = {};
    const std::string own = std::string(namespace_directory) + '/' + namespace_name_prefix + vrf_name;
    return stat(own.c_str(), &wanted) == 0 && stat(path_of(process, "ns/net").c_str(), &present) == 0 &&
           (wanted.st_ino != present.st_ino || wanted.st_dev != present.st_dev);
}
